// The bitmap file writer: files of every depth as an independent reader
// sees them, the exact header fields, error mapping and cleanup on every
// failure, and cancel requests.
#include "driver_fixture.h"
#include "support/image_fixture.h"

#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace
{

std::string Shell(const std::string &cmd, int *status)
{
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) {
        *status = -1;
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        out.append(buf, n);
    *status = pclose(p);
    return out;
}

// Reads a bitmap file with python3/PIL, else ImageMagick, as "w h" and
// then r g b per pixel, top row first. Empty reader name when neither exists.
bool ReadWithIndependentReader(const std::string &path, std::string *reader, std::vector<int> *out)
{
    static const std::string python = [] {
        for (const char *candidate : {"/usr/bin/python3", "python3"}) {
            int st;
            Shell(std::string(candidate) + " -c 'import PIL' 2>/dev/null", &st);
            if (st == 0)
                return std::string(candidate);
        }
        return std::string();
    }();
    int status = -1;
    std::string text;
    if (!python.empty()) {
        *reader = "PIL";
        text = Shell(python +
                         " -c \"import sys; from PIL import Image; im = Image.open(sys.argv[1]).convert('RGB'); "
                         "print(*im.size, *[c for p in im.getdata() for c in p])\" '" +
                         path + "'",
                     &status);
    } else if (access("/usr/bin/convert", X_OK) == 0) {
        *reader = "ImageMagick";
        text = Shell("/usr/bin/convert 'bmp:" + path + "' -depth 8 -compress none ppm:- | tail -n +2 | sed 's/^255$//'",
                     &status);
    } else {
        reader->clear();
        return false;
    }
    std::istringstream in(text);
    out->assign(std::istream_iterator<int>(in), {});
    return status == 0;
}

std::vector<BYTE> ReadFile(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    return std::vector<BYTE>(std::istreambuf_iterator<char>(f), {});
}

DWORD U32(const std::vector<BYTE> &b, size_t at)
{
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | (DWORD)b[at + 3] << 24;
}

bool Exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

} // namespace

class BmpWriterTest : public CurrentImageTest
{
protected:
    // Every pixel of the current image as the DIB and its table say.
    static std::vector<int> ImagePixels()
    {
        tamrix_test::DibRows dib = tamrix_test::ReadDib(g_imageDC, g_imageBitmap, g_imageInfo->bmiHeader);
        std::vector<int> out{dib.hdr.biWidth, dib.hdr.biHeight};
        for (int y = 0; y < dib.hdr.biHeight; y++)
            for (int x = 0; x < dib.hdr.biWidth; x++) {
                std::array<int, 3> rgb = dib.Rgb(x, y);
                out.insert(out.end(), rgb.begin(), rgb.end());
            }
        return out;
    }

    // Starts the save thread on `path`.
    void StartSave(const std::string &path, bool cancelFirst = false)
    {
        name_.assign(path.begin(), path.end());
        name_.push_back(0);
        g_saveRequest.callback = nullptr;
        g_saveRequest.fileName = name_.data();
        g_saveResult = -1;
        InterlockedExchange(&g_saveCancel, cancelFirst ? 1 : 0);
        threads_ = PlatLiveCount(PLAT_KIND_THREAD);
        g_hSaveThread = CreateThread(nullptr, 256, ImgSaveThread, &g_saveRequest, CREATE_SUSPENDED, nullptr);
        EXPECT_NE(g_hSaveThread, nullptr);
        ResumeThread(g_hSaveThread);
    }
    // Waits for the save thread's result and its end, running `poll` in
    // between; returns the result.
    LONG FinishSave(const std::function<void()> &poll = [] { Sleep(1); })
    {
        LONG result = -1;
        for (int i = 0; i < 100000 && (result = MciReadResult(&g_saveResult)) < 0; i++)
            poll();
        // The thread leaves its handle to the driver, which waits for it.
        MciJoinThread(&g_hSaveThread);
        EXPECT_EQ(PlatLiveCount(PLAT_KIND_THREAD), threads_);
        return result;
    }
    LONG Save(const std::string &path, bool cancelFirst = false)
    {
        StartSave(path, cancelFirst);
        return FinishSave();
    }

    tamrix_test::TempDir dir_;
    std::vector<WCHAR> name_;
    long threads_ = 0;
};

TEST_F(BmpWriterTest, EveryDepthAsAnotherReaderSeesIt)
{
    struct Case {
        SHORT mode, step;
        int width;
        WORD bits;
        DWORD table, clrUsed;
    };
    const Case cases[] = {
        {0, 1, 50, 1, 8, 0},    {0, 2, 13, 4, 16, 4}, {0, 4, 13, 4, 64, 0},   {0, 8, 13, 8, 1024, 0},
        {0, 5, 11, 8, 1024, 0}, {16, 1, 9, 4, 64, 0}, {16, 2, 9, 8, 1024, 0}, {16, 8, 9, 24, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " step " << c.step);
        MakeImage(c.mode, c.step, c.width, 3);
        std::vector<BYTE> infoBefore((BYTE *)g_imageInfo, (BYTE *)g_imageInfo + 40 + c.table);
        std::string path = dir_ / "img.bmp";
        ASSERT_EQ(Save(path), 0);
        EXPECT_TRUE(std::equal(infoBefore.begin(), infoBefore.end(), (BYTE *)g_imageInfo));

        std::vector<BYTE> f = ReadFile(path);
        DWORD rowBytes = ((c.bits * c.width + 7) / 8 + 3) / 4 * 4;
        ASSERT_EQ(f.size(), 54 + c.table + 3 * rowBytes);
        // Magic, file size, reserved, bits offset; header size, width,
        // height, depth, colours used.
        EXPECT_EQ((std::vector<DWORD>{f[0], f[1], U32(f, 2), U32(f, 6), U32(f, 10), U32(f, 14), U32(f, 18), U32(f, 22),
                                      f[28], U32(f, 46)}),
                  (std::vector<DWORD>{'B', 'M', 54 + c.table + g_imageBytes, 0, 54 + c.table, 40, (DWORD)c.width, 3,
                                      c.bits, c.clrUsed}));
        if (c.bits == 1) {
            // 50 pixels: 8-byte rows, white then black in the table.
            EXPECT_EQ(rowBytes, 8u);
            EXPECT_EQ(U32(f, 54), 0x00FFFFFFu);
            EXPECT_EQ(U32(f, 58), 0u);
        }

        std::string reader;
        std::vector<int> seen;
        bool ok = ReadWithIndependentReader(path, &reader, &seen);
        if (reader.empty())
            GTEST_SKIP() << "neither python3 with PIL nor ImageMagick is installed: cannot read the files back";
        ASSERT_TRUE(ok) << reader << " could not read " << path;
        std::vector<int> want = ImagePixels();
        EXPECT_EQ(seen, want) << reader;
        EXPECT_GT(std::set<int>(want.begin() + 2, want.end()).size(), 1u); // not blank
    }
}

TEST_F(BmpWriterTest, FailuresMapAndLeaveNoFile)
{
    MakeImage(0, 1, 50, 3);
    std::string path = dir_ / "out.bmp";

    EXPECT_EQ(Save(dir_ / "missing/dir/out.bmp"), (LONG)MCIERR_FILE_NOT_FOUND);

    struct Injected {
        const char *api;
        unsigned nth;
        DWORD error;
        LONG result;
    };
    const Injected cases[] = {
        {"CreateFileW", 1, ERROR_ACCESS_DENIED, MCIERR_FILENAME_REQUIRED},
        {"CreateFileW", 1, 123, MCIERR_FILENAME_REQUIRED},
        {"CreateFileW", 1, ERROR_PATH_NOT_FOUND, MCIERR_FILE_NOT_FOUND},
        {"CreateFileW", 1, 267, MCIERR_FILE_NOT_FOUND},
        {"CreateFileW", 1, 2401, MCIERR_FILE_NOT_FOUND},
        {"CreateFileW", 1, ERROR_WRITE_FAULT, MCIERR_FILE_WRITE},
        {"CreateFileW", 1, 1013, MCIERR_FILE_WRITE},
        {"CreateFileW", 1, ERROR_DISK_FULL, MCIERR_FILE_NOT_SAVED},
        // A full disk at the file header, the info block and the first row.
        {"WriteFile", 1, ERROR_DISK_FULL, MCIERR_FILE_NOT_SAVED},
        {"WriteFile", 2, ERROR_DISK_FULL, MCIERR_FILE_NOT_SAVED},
        {"WriteFile", 3, ERROR_DISK_FULL, MCIERR_FILE_NOT_SAVED},
        {"WriteFile", 2, ERROR_WRITE_FAULT, MCIERR_FILE_WRITE},
        // No memory for the row buffer, for the header backup, or a row that
        // cannot be read.
        {"GlobalAlloc", 1, 0, MCIERR_OUT_OF_MEMORY},
        {"GlobalAlloc", 2, 0, MCIERR_DRIVER_INTERNAL},
        {"GetDIBits", 2, 0, MCIERR_OUT_OF_MEMORY},
    };
    for (const Injected &c : cases) {
        PlatFailCall(c.api, c.nth, c.error);
        EXPECT_EQ(Save(path), c.result) << c.api << " call " << c.nth << " error " << c.error;
        EXPECT_FALSE(Exists(path)) << c.api << " call " << c.nth;
        PlatClearFaults();
    }
    // A scan that delivered more lines than asked: the rows written follow
    // the header, the size field the delivered bytes.
    g_imageInfo->bmiHeader.biHeight = 2;
    ASSERT_EQ(Save(path), 0);
    std::vector<BYTE> f = ReadFile(path);
    EXPECT_EQ(f.size(), 62u + 2 * 8);
    EXPECT_EQ(U32(f, 2), 62u + 3 * 8);
    EXPECT_EQ(U32(f, 22), 2u);
    g_imageInfo->bmiHeader.biHeight = 3;
    // A previous file of the same name is replaced, not appended to.
    ASSERT_EQ(Save(path), 0);
    size_t size = ReadFile(path).size();
    ASSERT_EQ(Save(path), 0);
    EXPECT_EQ(ReadFile(path).size(), size);
}

TEST_F(BmpWriterTest, CancelAtEachCheck)
{
    MakeImage(0, 1, 50, 3);
    std::string path = dir_ / "c.bmp";
    // Seen before anything is written.
    EXPECT_EQ(Save(path, true), (LONG)MCIERR_OUT_OF_MEMORY);
    EXPECT_FALSE(Exists(path));

    // Later checks: the writer is held inside a write to a full pipe while
    // the cancel request is made. The stale pipe stays because the delete
    // before the open fails.
    for (int blockedWrite = 1; blockedWrite <= 3; blockedWrite++) {
        SCOPED_TRACE(::testing::Message() << "blocked in write " << blockedWrite);
        std::string fifo = dir_ / "pipe.bmp";
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        int rd = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
        int wr = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
        ASSERT_GE(rd, 0);
        ASSERT_GE(wr, 0);
        // A one-page pipe with exactly the bytes of the writes before the
        // blocked one free.
        ASSERT_EQ(fcntl(wr, F_SETPIPE_SZ, 4096), 4096);
        const size_t before[] = {0, 14, 14 + 48};
        std::vector<char> fill(4096 - before[blockedWrite - 1], 0);
        ASSERT_EQ(write(wr, fill.data(), fill.size()), (ssize_t)fill.size());
        std::vector<char> sink(8192);

        PlatFailAlways("DeleteFileW", ERROR_ACCESS_DENIED);
        StartSave(fifo);
        // Wait until the writer sits in the blocked write.
        for (int i = 0; i < 100000 && PlatCallCount("WriteFile") < (unsigned)blockedWrite; i++)
            usleep(100);
        usleep(20000);
        EXPECT_EQ(MciReadResult(&g_saveResult), -1);
        InterlockedExchange(&g_saveCancel, 1);
        PlatClearFaults();
        // Drain the pipe so the write completes.
        LONG result = FinishSave([&] {
            while (read(rd, sink.data(), sink.size()) > 0) {
            }
            usleep(100);
        });
        close(rd);
        close(wr);
        // Seen after that write: the file is deleted and, the write itself
        // having succeeded, nothing maps to a known error.
        EXPECT_EQ(result, (LONG)MCIERR_FILE_NOT_SAVED);
        EXPECT_FALSE(Exists(fifo));
        unlink(fifo.c_str());
    }
}
