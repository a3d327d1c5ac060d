// Modules: loading the driver module by its Windows name through the search
// path, reference counts, exports, file names and the loader's error codes.
#include "support/platform_fixture.h"

#include "resource.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace
{

class ModulesTest : public PlatformTest
{
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        // Under ctest $TAMRIX_MODULE_PATH points at the build's lib directory;
        // run directly, the same directory comes from the build.
        PlatSetModuleSearchPath(TAMRIX_BUILD_DIR "/lib");
        modules_ = PlatLiveCount(PLAT_KIND_MODULE);
    }
    void TearDown() override
    {
        PlatSetModuleSearchPath(nullptr);
        if (!tempDir_.empty())
            std::filesystem::remove_all(tempDir_);
        PlatformTest::TearDown();
    }
    std::string TempDir()
    {
        if (tempDir_.empty()) {
            char pattern[] = "/tmp/tamrix-mod-XXXXXX";
            tempDir_ = mkdtemp(pattern);
        }
        return tempDir_;
    }
    static std::string FileName(HMODULE module)
    {
        WCHAR buf[PATH_MAX];
        DWORD n = GetModuleFileNameW(module, buf, PATH_MAX);
        return std::string(buf, buf + n); // the test paths are ASCII
    }
    long modules_ = 0;
    std::string tempDir_;
};

// Frees a module at the end of a scope, so that a failed assertion does not
// leave it loaded for the tests that follow.
struct Unload {
    void operator()(HMODULE m) const { FreeLibrary(m); }
};
using Loaded = std::unique_ptr<std::remove_pointer_t<HMODULE>, Unload>;

TEST_F(ModulesTest, DriverModuleLoadsByItsWindowsName)
{
    HMODULE dll = LoadLibraryW(u"TAMRIX.DLL");
    Loaded guard(dll);
    ASSERT_NE(dll, nullptr) << "error " << GetLastError();
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules_ + 1);
    EXPECT_NE(dll, GetModuleHandleW(nullptr));
    EXPECT_EQ(std::filesystem::path(FileName(dll)).filename(), "tamrix.so");
    EXPECT_EQ(GetModuleHandleW(u"tamrix.dll"), dll);

    // The module found its own instance in its constructor; the value
    // LoadLibrary hands back must be the same one.
    FARPROC driverProc = GetProcAddress(dll, "DriverProc");
    ASSERT_NE(driverProc, nullptr);
    EXPECT_EQ(PlatModuleFromAddress(reinterpret_cast<const void *>(driverProc)), dll);

    // Only DriverProc is exported; the library's own platform imports are not
    // the module's exports either.
    SetLastError(0);
    EXPECT_EQ(GetProcAddress(dll, "DllEntryPoint"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
    EXPECT_EQ(GetProcAddress(dll, "LoadStringW"), nullptr);
    EXPECT_EQ(GetProcAddress(dll, reinterpret_cast<LPCSTR>(1)), nullptr);

    // Its resources come from its own file.
    WCHAR text[64];
    ASSERT_GT(LoadStringW(dll, IDS_COMMAND_TABLE, text, 64), 0);
    EXPECT_EQ(std::u16string(text), u"#96");
    HRSRC table = FindResourceW(dll, MAKEINTRESOURCEW(IDR_COMMAND_TABLE), RT_RCDATA);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(SizeofResource(dll, table), 2796u);
    // A resource handle of one module is not one of another.
    EXPECT_EQ(SizeofResource(GetModuleHandleW(nullptr), table), 0u);

    EXPECT_TRUE(FreeLibrary(guard.release()));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules_);
    EXPECT_EQ(GetModuleHandleW(u"TAMRIX.DLL"), nullptr) << "still mapped after the last FreeLibrary";
    EXPECT_FALSE(FreeLibrary(dll));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(ModulesTest, ReferenceCounts)
{
    Loaded first(LoadLibraryA("TAMRIX.DLL"));
    ASSERT_NE(first.get(), nullptr);
    Loaded second(LoadLibraryA("tamrix")); // no extension: ".so" is added
    EXPECT_EQ(second.get(), first.get());
    Loaded third(LoadLibraryA((TAMRIX_BUILD_DIR "/lib/tamrix.so")));
    EXPECT_EQ(third.get(), first.get());
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules_ + 1);

    EXPECT_TRUE(FreeLibrary(third.release()));
    EXPECT_TRUE(FreeLibrary(second.release()));
    // One reference left: still loaded and usable.
    EXPECT_NE(GetModuleHandleW(u"TAMRIX.DLL"), nullptr);
    WCHAR text[8];
    EXPECT_EQ(LoadStringW(first.get(), IDS_COMMAND_TABLE, text, 8), 3);
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules_ + 1);
    EXPECT_TRUE(FreeLibrary(first.release()));
}

TEST_F(ModulesTest, NameMappingAndSearchPath)
{
    // "SCANAUX" is scanaux.so in a directory of the search path, and a path
    // with a Windows file name maps the file name.
    std::string dir = TempDir();
    std::filesystem::copy_file(TAMRIX_BUILD_DIR "/lib/tamrix.so", dir + "/scanaux.so");
    SetLastError(0);
    EXPECT_EQ(LoadLibraryA("SCANAUX"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));

    PlatSetModuleSearchPath((std::string("/nonexistent:") + dir).c_str());
    {
        Loaded aux(LoadLibraryA("SCANAUX"));
        ASSERT_NE(aux.get(), nullptr) << GetLastError();
        Loaded byPath(LoadLibraryA((dir + "/SCANAUX.DLL").c_str()));
        EXPECT_EQ(byPath.get(), aux.get());
        EXPECT_EQ(FileName(aux.get()), std::filesystem::canonical(dir + "/scanaux.so").string());
    }

    // A file that is not a loadable object.
    std::ofstream(dir + "/junk.so") << "not an ELF file";
    EXPECT_EQ(LoadLibraryA("JUNK.DLL"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BAD_FORMAT));
    EXPECT_EQ(PlatLiveCount(PLAT_KIND_MODULE), modules_);
}

TEST_F(ModulesTest, MissingModulesAndInjectedFailures)
{
    SetLastError(0);
    EXPECT_EQ(LoadLibraryA("NOSUCH.DLL"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(LoadLibraryW(u"C:\\WINDOWS\\NOSUCH.DLL"), nullptr);
    EXPECT_EQ(GetModuleHandleW(u"NOSUCH.DLL"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));

    PlatFailCall("LoadLibraryW", 1, 0);
    EXPECT_EQ(LoadLibraryW(u"TAMRIX.DLL"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));

    Loaded dll(LoadLibraryW(u"TAMRIX.DLL"));
    ASSERT_NE(dll.get(), nullptr);
    PlatFailCall("GetProcAddress", 1, 0);
    EXPECT_EQ(GetProcAddress(dll.get(), "DriverProc"), nullptr);
    EXPECT_NE(GetProcAddress(dll.get(), "DriverProc"), nullptr);
}

TEST_F(ModulesTest, MainProgramModule)
{
    HMODULE self = GetModuleHandleW(nullptr);
    EXPECT_EQ(PlatModuleFromAddress(reinterpret_cast<const void *>(&FileName)), self);
    EXPECT_EQ(FileName(self), std::filesystem::canonical("/proc/self/exe").string());
    EXPECT_EQ(FileName(nullptr), FileName(self));

    // A short buffer gets size - 1 characters and a NUL; the result is size.
    WCHAR small[4] = {1, 1, 1, 1};
    SetLastError(0);
    EXPECT_EQ(GetModuleFileNameW(self, small, 4), 4u);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(small[0], u'/');
    EXPECT_EQ(small[3], 0);
}

} // namespace
