// Shared between the KERNEL32 files of the host platform.
#pragma once

#include "core.h"

namespace kernel
{

// What GetCurrentThread returns: a pseudo handle meaning "the caller".
inline const HANDLE kCurrentThreadPseudo = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-2));

// The thread object of the calling thread when CreateThread started it,
// else null.
std::shared_ptr<plat::Object> CurrentThreadObject();

} // namespace kernel
