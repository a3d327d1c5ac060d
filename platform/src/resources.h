// Internal interface of the module and resource parts of the platform:
// the module records behind HMODULE values and the resources embedded in
// each module (a standard RES file in the ELF section ".tamrix_rsrc").
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace plat
{

// ---- Modules -------------------------------------------------------------
// An HMODULE is the load base of an ELF object, as on Windows where it is the
// image base. Every object the platform has seen has a record; records of
// objects loaded with LoadLibrary carry a reference count.

// The module of the main program.
HMODULE MainModule();
// Host path of the module's file; empty when `module` is not known.
std::string ModulePath(HMODULE module);
// True when `module` names a known module.
bool IsModule(HMODULE module);

// ---- Resources -----------------------------------------------------------
// A resource's bytes. The pointer stays valid while the module is loaded.
struct ResourceBytes {
    const BYTE *data = nullptr;
    DWORD size = 0;
};

// Finds a resource by type and name (each an ordinal made with
// MAKEINTRESOURCEW, a "#nnn" string or a case-insensitive string name).
// `module` NULL means the main program. On failure returns false and sets
// the last error as FindResourceW does.
bool FindResourceBytes(HMODULE module, LPCWSTR type, LPCWSTR name, ResourceBytes *out);

// Forgets the parsed resources of a module (called when it is unloaded).
void DropModuleResources(HMODULE module);

} // namespace plat
