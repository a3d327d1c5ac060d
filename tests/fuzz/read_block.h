// A block of a scan read as the scan thread reads it, with the rules every
// read keeps whatever the wire sent: a known status, no more bytes than the
// block holds, nothing written past it (the buffer's 16 guard bytes 0xA5).
#pragma once

#include "fuzz_input.h"

#include "protocol/protocol.h"

#include <vector>

namespace fuzz
{

inline int ReadCheckedBlock(ScanParams *p, std::vector<BYTE> &buffer, DWORD capacity, unsigned long *total)
{
    ReadBlock block{buffer.data(), capacity, 0xFFFFFFFF};
    int result = ProtReadImage(p, &block);
    p->firstBlock = 0;
    Check(result >= 0 && result <= 2, "read answered an unknown status");
    Check(block.count <= capacity, "read delivered more than the block holds");
    *total += block.count;
    for (DWORD i = capacity; i < capacity + 16; i++)
        Check(buffer[i] == 0xA5, "read wrote past the block");
    return result;
}

} // namespace fuzz
