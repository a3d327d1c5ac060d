// KERNEL32 global memory. Moveable blocks live behind table handles with a
// lock count; fixed blocks are their own handle (the pointer), as on Windows.
#include "core.h"
#include "kernel.h"

#include <cstdlib>
#include <cstring>
#include <map>

namespace
{

class GlobalBlock : public plat::Object
{
public:
    GlobalBlock(UINT flags, SIZE_T bytes) : Object(plat::Kind::Global), flags_(flags), size_(bytes) {}
    ~GlobalBlock() override { std::free(data_); }
    bool Allocate()
    {
        // At least one byte so that even an empty fixed block has an address.
        data_ = static_cast<BYTE *>(std::calloc(size_ ? size_ : 1, 1));
        return data_ != nullptr;
    }
    bool Moveable() const { return (flags_ & GMEM_MOVEABLE) != 0; }

    // Guarded by the mutex below.
    UINT flags_;
    SIZE_T size_;
    BYTE *data_ = nullptr;
    int locks_ = 0;
};

struct Blocks {
    std::mutex mutex;
    // Fixed blocks by address (their handle value).
    std::map<uintptr_t, std::shared_ptr<GlobalBlock>> fixed;
};
Blocks &B()
{
    static Blocks *blocks = new Blocks;
    return *blocks;
}

std::shared_ptr<GlobalBlock> FindBlock(HGLOBAL mem)
{
    if (auto block = plat::Find<GlobalBlock>(mem))
        return block;
    std::lock_guard<std::mutex> guard(B().mutex);
    auto it = B().fixed.find(reinterpret_cast<uintptr_t>(mem));
    if (it != B().fixed.end())
        return it->second;
    plat::SetError(ERROR_INVALID_HANDLE);
    return nullptr;
}

constexpr UINT kKnownFlags = GMEM_MOVEABLE | GMEM_ZEROINIT | GMEM_DISCARDABLE | GMEM_SHARE;
constexpr UINT kModify = 0x0080; // GMEM_MODIFY

} // namespace

PLAT_INJECTABLE(GlobalAlloc);
PLAT_INJECTABLE(GlobalLock);
PLAT_INJECTABLE(GlobalReAlloc);

extern "C" {

HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T bytes)
{
    if (PLAT_FAIL(GlobalAlloc, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    if (flags & ~kKnownFlags) {
        plat::SetError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto block = std::make_shared<GlobalBlock>(flags, bytes);
    if (!block->Allocate()) {
        plat::SetError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (block->Moveable())
        return plat::ToHandle<HGLOBAL>(plat::AddHandle(block));
    uintptr_t address = reinterpret_cast<uintptr_t>(block->data_);
    std::lock_guard<std::mutex> guard(B().mutex);
    B().fixed.emplace(address, block);
    return reinterpret_cast<HGLOBAL>(address);
}

LPVOID WINAPI GlobalLock(HGLOBAL mem)
{
    if (PLAT_FAIL(GlobalLock, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    std::shared_ptr<GlobalBlock> block = FindBlock(mem);
    if (!block)
        return nullptr;
    std::lock_guard<std::mutex> guard(B().mutex);
    if (block->Moveable())
        ++block->locks_;
    return block->data_;
}

BOOL WINAPI GlobalUnlock(HGLOBAL mem)
{
    std::shared_ptr<GlobalBlock> block = FindBlock(mem);
    if (!block)
        return FALSE;
    std::lock_guard<std::mutex> guard(B().mutex);
    if (!block->Moveable()) {
        plat::SetError(NO_ERROR);
        return FALSE;
    }
    if (block->locks_ == 0) {
        plat::SetError(ERROR_NOT_LOCKED);
        return FALSE;
    }
    if (--block->locks_ > 0)
        return TRUE;
    plat::SetError(NO_ERROR);
    return FALSE;
}

HGLOBAL WINAPI GlobalFree(HGLOBAL mem)
{
    uintptr_t value = reinterpret_cast<uintptr_t>(mem);
    if (plat::Find<GlobalBlock>(mem) && plat::RemoveHandle(value))
        return nullptr;
    std::shared_ptr<GlobalBlock> block;
    {
        std::lock_guard<std::mutex> guard(B().mutex);
        auto it = B().fixed.find(value);
        if (it != B().fixed.end()) {
            block = std::move(it->second);
            B().fixed.erase(it);
        }
    }
    if (block)
        return nullptr;
    plat::SetError(ERROR_INVALID_HANDLE);
    return mem;
}

SIZE_T WINAPI GlobalSize(HGLOBAL mem)
{
    std::shared_ptr<GlobalBlock> block = FindBlock(mem);
    if (!block)
        return 0;
    std::lock_guard<std::mutex> guard(B().mutex);
    return block->size_;
}

HGLOBAL WINAPI GlobalReAlloc(HGLOBAL mem, SIZE_T bytes, UINT flags)
{
    if (PLAT_FAIL(GlobalReAlloc, ERROR_NOT_ENOUGH_MEMORY))
        return nullptr;
    std::shared_ptr<GlobalBlock> block = FindBlock(mem);
    if (!block)
        return nullptr;
    std::unique_lock<std::mutex> guard(B().mutex);
    if (flags & kModify) {
        // Only the discardable attribute changes; size and place stay.
        block->flags_ = (block->flags_ & ~GMEM_DISCARDABLE) | (flags & GMEM_DISCARDABLE);
        return mem;
    }
    bool moveable = block->Moveable();
    // A fixed block (or a locked moveable one) may only move when the caller
    // allows it with GMEM_MOVEABLE.
    bool mayMove = (flags & GMEM_MOVEABLE) || (moveable && block->locks_ == 0);
    if (bytes > block->size_ && !mayMove) {
        plat::SetError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    auto *data = static_cast<BYTE *>(std::realloc(block->data_, bytes ? bytes : 1));
    if (!data) {
        plat::SetError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (bytes > block->size_ && (flags & GMEM_ZEROINIT))
        std::memset(data + block->size_, 0, bytes - block->size_);
    BYTE *old = block->data_;
    block->data_ = data;
    block->size_ = bytes;
    if (moveable || data == old)
        return mem;
    // A fixed block that moved is known by its new address.
    B().fixed.erase(reinterpret_cast<uintptr_t>(mem));
    B().fixed.emplace(reinterpret_cast<uintptr_t>(data), block);
    return reinterpret_cast<HGLOBAL>(data);
}

} // extern "C"
