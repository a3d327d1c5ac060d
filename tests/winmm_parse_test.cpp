// The command-string parser against the driver's stored command table (read
// from the compiled resource file): message, flags and parameter block of
// every command, the table's stored quirks, and the parser's errors.
#include "../platform/src/winmm.h"
#include "driver/driver_state.h"
#include "support/platform_fixture.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace
{

// The RCDATA resource 96 of a RES file.
std::vector<BYTE> LoadStoredTable()
{
    std::ifstream in(TAMRIX_RES_FILE, std::ios::binary);
    std::vector<BYTE> res((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto dword = [&](size_t p) { return DWORD(res[p] | res[p + 1] << 8 | res[p + 2] << 16 | DWORD(res[p + 3]) << 24); };
    auto word = [&](size_t p) { return WORD(res[p] | res[p + 1] << 8); };
    for (size_t p = 0; p + 32 <= res.size();) {
        DWORD dataSize = dword(p), headerSize = dword(p + 4);
        // Type and name as ordinals (0xFFFF, id).
        if (word(p + 8) == 0xFFFF && word(p + 10) == 10 && word(p + 12) == 0xFFFF && word(p + 14) == 96)
            return std::vector<BYTE>(res.begin() + p + headerSize, res.begin() + p + headerSize + dataSize);
        p = (p + headerSize + dataSize + 3) & ~size_t(3);
    }
    return {};
}

class WinmmParseTest : public PlatformTest
{
protected:
    static void SetUpTestSuite() { table_ = LoadStoredTable(); }
    void SetUp() override
    {
        PlatformTest::SetUp();
        ASSERT_EQ(table_.size(), 2796u) << "command table not found in " << TAMRIX_RES_FILE;
    }
    DWORD Parse(const char16_t *verb, const char16_t *params, mm::Parsed &out, HWND cb = nullptr)
    {
        return mm::ParseCommand(table_, verb, params, cb, buffer_, 64, out);
    }
    template <class T> const T &Block(const mm::Parsed &p) { return *reinterpret_cast<const T *>(p.block); }
    static std::vector<BYTE> table_;
    WCHAR buffer_[64] = {};
};
std::vector<BYTE> WinmmParseTest::table_;

// Wide text as UTF-8 (tests use ASCII), for comparisons and messages.
std::string Str(LPCWSTR s)
{
    if (!s)
        return "<null>";
    std::string r;
    for (; *s; s++)
        r.push_back(*s < 0x80 ? char(*s) : '?');
    return r;
}

TEST_F(WinmmParseTest, GenericCommandsCarryFlagsAndCallback)
{
    struct Case {
        const char16_t *verb, *params;
        UINT message;
        DWORD flags;
    } cases[] = {
        {u"close", u"wait", 0x0804, MCI_WAIT},
        {u"copy", u"notify", 0x0852, MCI_NOTIFY},
        {u"stop", u"WAIT", 0x0808, MCI_WAIT},
        {u"CLOSE", u"  notify  ", 0x0804, MCI_NOTIFY},
        {u"stop", u"", 0x0808, 0},
        {u"copy", u"notify wait", 0x0852, MCI_NOTIFY | MCI_WAIT},
    };
    for (const Case &c : cases) {
        mm::Parsed p;
        ASSERT_EQ(Parse(c.verb, c.params, p, reinterpret_cast<HWND>(0x4321)), 0u) << Str(c.verb);
        EXPECT_EQ(p.message, c.message) << Str(c.verb);
        EXPECT_EQ(p.flags, c.flags) << Str(c.verb) << " " << Str(c.params);
        EXPECT_EQ(Block<MCI_GENERIC_PARMS>(p).dwCallback, 0x4321u);
    }
}

TEST_F(WinmmParseTest, ReturningCommandsLayOutThePublishedBlocks)
{
    mm::Parsed caps;
    ASSERT_EQ(Parse(u"capability", u"can halftone wait", caps), 0u);
    EXPECT_EQ(caps.message, MCI_GETDEVCAPS);
    EXPECT_EQ(caps.flags, MCI_GETDEVCAPS_ITEM | MCI_WAIT);
    EXPECT_EQ(Block<MCI_GETDEVCAPS_PARMS>(caps).dwItem, 0x4014u);
    EXPECT_EQ(caps.returnOffset, offsetof(MCI_GETDEVCAPS_PARMS, dwReturn));

    mm::Parsed dt;
    ASSERT_EQ(Parse(u"capability", u"notify device type", dt), 0u);
    EXPECT_EQ(Block<MCI_GETDEVCAPS_PARMS>(dt).dwItem, 4u);

    mm::Parsed info;
    ASSERT_EQ(Parse(u"info", u"product wait", info), 0u);
    EXPECT_EQ(info.message, MCI_INFO);
    EXPECT_EQ(info.flags, MCI_INFO_PRODUCT | MCI_WAIT);
    EXPECT_EQ(Block<MCI_INFO_PARMSW>(info).lpstrReturn, buffer_);
    EXPECT_EQ(Block<MCI_INFO_PARMSW>(info).dwRetSize, 64u);

    mm::Parsed status;
    ASSERT_EQ(Parse(u"status", u"scanner wait", status), 0u);
    EXPECT_EQ(status.message, MCI_STATUS);
    EXPECT_EQ(status.flags, MCI_STATUS_ITEM | MCI_WAIT);
    EXPECT_EQ(Block<MCI_STATUS_PARMS>(status).dwItem, 0x4001u);
    EXPECT_EQ(status.returnOffset, offsetof(MCI_STATUS_PARMS, dwReturn));
    EXPECT_EQ(status.returnSize, sizeof(DWORD_PTR));

    mm::Parsed where;
    ASSERT_EQ(Parse(u"where", u"destination wait", where), 0u);
    EXPECT_EQ(where.message, MCI_WHERE);
    EXPECT_EQ(where.flags, DWORD(MCI_ANIM_WHERE_DESTINATION | MCI_WAIT));
    EXPECT_EQ(where.returnKind, mm::ReturnKind::Rect);
    EXPECT_EQ(where.returnOffset, offsetof(MCI_ANIM_RECT_PARMS, rc));

    mm::Parsed open;
    ASSERT_EQ(Parse(u"open", u"type scanner element \"x y\" alias s shareable wait", open), 0u);
    EXPECT_EQ(open.message, MCI_OPEN);
    EXPECT_EQ(open.flags, DWORD(MCI_OPEN_TYPE | MCI_OPEN_ELEMENT | MCI_OPEN_ALIAS | MCI_OPEN_SHAREABLE | MCI_WAIT));
    const auto &o = Block<MCI_OPEN_PARMSW>(open);
    EXPECT_EQ(Str(o.lpstrDeviceType), "scanner");
    EXPECT_EQ(Str(o.lpstrElementName), "x y");
    EXPECT_EQ(Str(o.lpstrAlias), "s");
    EXPECT_EQ(open.returnOffset, offsetof(MCI_OPEN_PARMSW, wDeviceID));
}

TEST_F(WinmmParseTest, DriverCommandsFillTheDriversOwnBlocks)
{
    mm::Parsed mode;
    ASSERT_EQ(Parse(u"scanmode", u"colormode 16386 resolution 200 contrast -1 colorstep 3 halftone dialog wait", mode),
              0u);
    EXPECT_EQ(mode.message, 0x0C02u);
    EXPECT_EQ(mode.flags, 0x10000u | 0x20000 | 0x40000 | 0x80000 | 0x100000 | 0x200000 | MCI_WAIT);
    const auto &m = Block<ScanModeParms>(mode);
    EXPECT_EQ(m.resolution, 200u);
    EXPECT_EQ(m.contrast, 0xFFFFFFFFu);
    EXPECT_EQ(m.colorStep, 3u);
    EXPECT_EQ(m.colorMode, 16386u);
    EXPECT_EQ(mode.blockSize, sizeof(ScanModeParms));

    mm::Parsed read;
    ASSERT_EQ(Parse(u"scanread", u"notify rect 10 -20 2100 +2970", read), 0u);
    EXPECT_EQ(read.message, 0x0C01u);
    EXPECT_EQ(read.flags, 0x10000u | MCI_NOTIFY);
    const RECT &r = Block<ScanReadParms>(read).rc;
    EXPECT_EQ(r.left, 10);
    EXPECT_EQ(r.top, -20);
    EXPECT_EQ(r.right, 2100);
    EXPECT_EQ(r.bottom, 2970);

    mm::Parsed put;
    ASSERT_EQ(Parse(u"put", u"source at 1 2 3 4 wait", put), 0u);
    EXPECT_EQ(put.flags, DWORD(MCI_ANIM_RECT | MCI_ANIM_PUT_SOURCE | MCI_WAIT));
    EXPECT_EQ(Block<MCI_ANIM_RECT_PARMS>(put).rc.bottom, 4);

    mm::Parsed save;
    ASSERT_EQ(Parse(u"save", u"wait \"/tmp/a b.bmp\"", save), 0u);
    EXPECT_EQ(save.message, MCI_SAVE);
    EXPECT_EQ(save.flags, DWORD(MCI_SAVE_FILE | MCI_WAIT));
    EXPECT_EQ(Str(Block<MCI_SAVE_PARMSW>(save).lpfilename), "/tmp/a b.bmp");
}

TEST_F(WinmmParseTest, WindowConstantsTakeItemsOrNumbers)
{
    mm::Parsed w;
    ASSERT_EQ(Parse(u"window", u"handle 4660 state no action text \"Scan 1\" wait", w), 0u);
    EXPECT_EQ(w.message, MCI_WINDOW);
    EXPECT_EQ(w.flags, DWORD(MCI_ANIM_WINDOW_HWND | MCI_ANIM_WINDOW_STATE | MCI_ANIM_WINDOW_TEXT | MCI_WAIT));
    const auto &b = Block<MCI_ANIM_WINDOW_PARMSW>(w);
    EXPECT_EQ(b.hWnd, reinterpret_cast<HWND>(4660));
    EXPECT_EQ(b.nCmdShow, 8u);
    EXPECT_EQ(Str(b.lpstrText), "Scan 1");

    // "minimize" must not swallow the first letters of "minimized".
    const std::pair<const char16_t *, UINT> states[] = {{u"state minimized wait", 2}, {u"state minimize wait", 6},
                                                        {u"state maximized wait", 3}, {u"state restore wait", 9},
                                                        {u"state hide wait", 0},      {u"state no activate wait", 4}};
    for (auto [params, show] : states) {
        mm::Parsed s;
        ASSERT_EQ(Parse(u"window", params, s), 0u) << Str(params);
        EXPECT_EQ(Block<MCI_ANIM_WINDOW_PARMSW>(s).nCmdShow, show) << Str(params);
    }
    mm::Parsed d;
    ASSERT_EQ(Parse(u"window", u"handle default wait", d), 0u);
    EXPECT_EQ(Block<MCI_ANIM_WINDOW_PARMSW>(d).hWnd, nullptr);
    EXPECT_EQ(d.flags, DWORD(MCI_ANIM_WINDOW_HWND | MCI_WAIT));
}

TEST_F(WinmmParseTest, TimeFormatOnlyMatchesItsFirstStoredItem)
{
    mm::Parsed mm;
    ASSERT_EQ(Parse(u"set", u"time format millimeter wait", mm), 0u);
    EXPECT_EQ(mm.message, MCI_SET);
    EXPECT_EQ(mm.flags, DWORD(MCI_SET_TIME_FORMAT | MCI_WAIT));
    EXPECT_EQ(Block<MCI_SET_PARMS>(mm).dwTimeFormat, 0x4001u);
    for (const char16_t *params : {u"time format inch wait", u"time format dot wait", u"time format 16386 wait"}) {
        mm::Parsed p;
        EXPECT_EQ(Parse(u"set", params, p), DWORD(MCIERR_UNRECOGNIZED_COMMAND)) << Str(params);
    }
    // The commands after "set" are still found and whole.
    mm::Parsed stop;
    EXPECT_EQ(Parse(u"stop", u"wait", stop), 0u);
    mm::Parsed status;
    ASSERT_EQ(Parse(u"status", u"wait ready", status), 0u);
    EXPECT_EQ(Block<MCI_STATUS_PARMS>(status).dwItem, 7u);
}

TEST_F(WinmmParseTest, MalformedStringsGetTheParsersErrors)
{
    struct Case {
        const char16_t *verb, *params;
        DWORD error;
    } cases[] = {
        {u"play", u"wait", MCIERR_UNRECOGNIZED_COMMAND},
        {u"stop", u"now wait", MCIERR_UNRECOGNIZED_KEYWORD},
        {u"status", u"mode wait", MCIERR_UNRECOGNIZED_KEYWORD},
        {u"scanmode", u"resolution high wait", MCIERR_BAD_INTEGER},
        {u"scanmode", u"wait resolution", MCIERR_BAD_INTEGER},
        {u"scanread", u"rect 1 2 3 wait", MCIERR_BAD_INTEGER},
        {u"scanread", u"rect 1 2 3 99999999999 wait", MCIERR_BAD_INTEGER},
        {u"window", u"wait text", MCIERR_MISSING_STRING_ARGUMENT},
        {u"window", u"state sideways wait", MCIERR_BAD_CONSTANT},
        {u"window", u"text \"unclosed wait", MCIERR_NO_CLOSING_QUOTE},
        {u"close", u"wait wait", MCIERR_DUPLICATE_FLAGS},
        {u"status", u"ready scanner wait", MCIERR_DUPLICATE_FLAGS},
        {u"save", u"a.bmp b.bmp wait", MCIERR_UNRECOGNIZED_KEYWORD},
        {u"closet", u"wait", MCIERR_UNRECOGNIZED_COMMAND},
    };
    for (const Case &c : cases) {
        mm::Parsed p;
        EXPECT_EQ(Parse(c.verb, c.params, p), c.error) << Str(c.verb) << " " << Str(c.params);
    }
}

TEST_F(WinmmParseTest, ReturnsAreFormattedByTheirType)
{
    WCHAR out[32];
    mm::Parsed caps;
    ASSERT_EQ(Parse(u"capability", u"device type wait", caps), 0u);
    auto setReturn = [&](DWORD v) { std::memcpy(caps.block + caps.returnOffset, &v, sizeof v); };

    setReturn(MCI_DEVTYPE_SCANNER);
    EXPECT_EQ(mm::FormatReturn(caps, MCI_RESOURCE_RETURNED, nullptr, out, 32), 0u);
    EXPECT_EQ(Str(out), "scanner");
    EXPECT_EQ(mm::FormatReturn(caps, 0, nullptr, out, 32), 0u);
    EXPECT_EQ(Str(out), "518");
    // A resource id that names no string comes back as the number.
    setReturn(1);
    EXPECT_EQ(mm::FormatReturn(caps, MCI_RESOURCE_RETURNED, nullptr, out, 32), 0u);
    EXPECT_EQ(Str(out), "1");
    setReturn(4294967295u);
    EXPECT_EQ(mm::FormatReturn(caps, 0, nullptr, out, 32), 0u);
    EXPECT_EQ(Str(out), "4294967295");
    EXPECT_EQ(mm::FormatReturn(caps, 0, nullptr, out, 10), DWORD(MCIERR_PARAM_OVERFLOW));
    EXPECT_EQ(mm::FormatReturn(caps, 0, nullptr, out, 11), 0u);

    mm::Parsed where;
    ASSERT_EQ(Parse(u"where", u"source wait", where), 0u);
    RECT r{5, -6, 640, 480};
    std::memcpy(where.block + where.returnOffset, &r, sizeof r);
    EXPECT_EQ(mm::FormatReturn(where, 0, nullptr, out, 32), 0u);
    EXPECT_EQ(Str(out), "5 -6 640 480");
}

} // namespace
