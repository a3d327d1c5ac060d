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

TEST_F(WinmmParseTest, EachCommandParsesToItsMessageFlagsAndCallback)
{
    const DWORD W = MCI_WAIT, N = MCI_NOTIFY;
    struct Case {
        const char16_t *verb, *params;
        UINT message;
        DWORD flags;
    } cases[] = {
        {u"close", u"wait", 0x0804, W},
        {u"copy", u"notify", 0x0852, N},
        {u"stop", u"WAIT", 0x0808, W},
        {u"CLOSE", u"  notify  ", 0x0804, N},
        {u"stop", u"", 0x0808, 0},
        {u"copy", u"notify wait", 0x0852, N | W},
        {u"capability", u"can halftone wait", MCI_GETDEVCAPS, MCI_GETDEVCAPS_ITEM | W},
        {u"info", u"product wait", MCI_INFO, MCI_INFO_PRODUCT | W},
        {u"status", u"scanner wait", MCI_STATUS, MCI_STATUS_ITEM | W},
        {u"where", u"destination wait", MCI_WHERE, MCI_ANIM_WHERE_DESTINATION | W},
        {u"open", u"type scanner element \"x y\" alias s shareable wait", MCI_OPEN,
         MCI_OPEN_TYPE | MCI_OPEN_ELEMENT | MCI_OPEN_ALIAS | MCI_OPEN_SHAREABLE | W},
        {u"scanmode", u"colormode 16386 resolution 200 contrast -1 colorstep 3 halftone dialog wait", 0x0C02,
         0x10000 | 0x20000 | 0x40000 | 0x80000 | 0x100000 | 0x200000 | W},
        {u"scanread", u"notify rect 10 -20 2100 +2970", 0x0C01, 0x10000 | N},
        {u"put", u"source at 1 2 3 4 wait", MCI_PUT, MCI_ANIM_RECT | MCI_ANIM_PUT_SOURCE | W},
        {u"save", u"wait \"/tmp/a b.bmp\"", MCI_SAVE, MCI_SAVE_FILE | W},
        {u"set", u"time format millimeter wait", MCI_SET, MCI_SET_TIME_FORMAT | W},
        {u"window", u"handle 4660 state no action text \"Scan 1\" wait", MCI_WINDOW,
         MCI_ANIM_WINDOW_HWND | MCI_ANIM_WINDOW_STATE | MCI_ANIM_WINDOW_TEXT | W},
        {u"window", u"handle default wait", MCI_WINDOW, MCI_ANIM_WINDOW_HWND | W},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(Str(c.verb) + " " + Str(c.params));
        mm::Parsed p;
        ASSERT_EQ(Parse(c.verb, c.params, p, reinterpret_cast<HWND>(0x4321)), 0u);
        EXPECT_EQ(p.message, c.message);
        EXPECT_EQ(p.flags, c.flags);
        EXPECT_EQ(Block<MCI_GENERIC_PARMS>(p).dwCallback, 0x4321u);
    }
}

TEST_F(WinmmParseTest, BlocksAreLaidOutAsPublished)
{
    mm::Parsed p;
    auto parse = [&](const char16_t *verb, const char16_t *params) {
        p = mm::Parsed{};
        ASSERT_EQ(Parse(verb, params, p), 0u) << Str(verb) << " " << Str(params);
    };
    parse(u"capability", u"can halftone wait");
    EXPECT_EQ(Block<MCI_GETDEVCAPS_PARMS>(p).dwItem, 0x4014u);
    EXPECT_EQ(p.returnOffset, offsetof(MCI_GETDEVCAPS_PARMS, dwReturn));
    parse(u"capability", u"notify device type");
    EXPECT_EQ(Block<MCI_GETDEVCAPS_PARMS>(p).dwItem, 4u);
    parse(u"info", u"product wait");
    EXPECT_EQ(Block<MCI_INFO_PARMSW>(p).lpstrReturn, buffer_);
    EXPECT_EQ(Block<MCI_INFO_PARMSW>(p).dwRetSize, 64u);
    parse(u"status", u"scanner wait");
    EXPECT_EQ(Block<MCI_STATUS_PARMS>(p).dwItem, 0x4001u);
    EXPECT_EQ(p.returnOffset, offsetof(MCI_STATUS_PARMS, dwReturn));
    EXPECT_EQ(p.returnSize, sizeof(DWORD_PTR));
    parse(u"where", u"destination wait");
    EXPECT_EQ(p.returnKind, mm::ReturnKind::Rect);
    EXPECT_EQ(p.returnOffset, offsetof(MCI_ANIM_RECT_PARMS, rc));
    parse(u"open", u"type scanner element \"x y\" alias s shareable wait");
    const auto &o = Block<MCI_OPEN_PARMSW>(p);
    EXPECT_EQ(Str(o.lpstrDeviceType) + "|" + Str(o.lpstrElementName) + "|" + Str(o.lpstrAlias), "scanner|x y|s");
    EXPECT_EQ(p.returnOffset, offsetof(MCI_OPEN_PARMSW, wDeviceID));

    parse(u"scanmode", u"colormode 16386 resolution 200 contrast -1 colorstep 3 halftone dialog wait");
    const auto &m = Block<ScanModeParms>(p);
    EXPECT_EQ(std::vector<DWORD>({m.resolution, m.contrast, m.colorStep, m.colorMode}),
              std::vector<DWORD>({200, 0xFFFFFFFF, 3, 16386}));
    EXPECT_EQ(p.blockSize, sizeof(ScanModeParms));
    parse(u"scanread", u"notify rect 10 -20 2100 +2970");
    const RECT &r = Block<ScanReadParms>(p).rc;
    EXPECT_EQ(std::vector<LONG>({r.left, r.top, r.right, r.bottom}), std::vector<LONG>({10, -20, 2100, 2970}));
    parse(u"put", u"source at 1 2 3 4 wait");
    EXPECT_EQ(Block<MCI_ANIM_RECT_PARMS>(p).rc.bottom, 4);
    parse(u"save", u"wait \"/tmp/a b.bmp\"");
    EXPECT_EQ(Str(Block<MCI_SAVE_PARMSW>(p).lpfilename), "/tmp/a b.bmp");

    parse(u"window", u"handle 4660 state no action text \"Scan 1\" wait");
    EXPECT_EQ(Block<MCI_ANIM_WINDOW_PARMSW>(p).hWnd, reinterpret_cast<HWND>(4660));
    EXPECT_EQ(Block<MCI_ANIM_WINDOW_PARMSW>(p).nCmdShow, 8u);
    EXPECT_EQ(Str(Block<MCI_ANIM_WINDOW_PARMSW>(p).lpstrText), "Scan 1");
    parse(u"window", u"handle default wait");
    EXPECT_EQ(Block<MCI_ANIM_WINDOW_PARMSW>(p).hWnd, nullptr);
    // "minimize" must not swallow the first letters of "minimized".
    const std::pair<const char16_t *, UINT> states[] = {{u"state minimized wait", 2}, {u"state minimize wait", 6},
                                                        {u"state maximized wait", 3}, {u"state restore wait", 9},
                                                        {u"state hide wait", 0},      {u"state no activate wait", 4}};
    for (auto [params, show] : states) {
        parse(u"window", params);
        EXPECT_EQ(Block<MCI_ANIM_WINDOW_PARMSW>(p).nCmdShow, show) << Str(params);
    }
}

TEST_F(WinmmParseTest, TimeFormatOnlyMatchesItsFirstStoredItem)
{
    mm::Parsed p;
    ASSERT_EQ(Parse(u"set", u"time format millimeter wait", p), 0u);
    EXPECT_EQ(Block<MCI_SET_PARMS>(p).dwTimeFormat, 0x4001u);
    for (const char16_t *params : {u"time format inch wait", u"time format dot wait", u"time format 16386 wait"}) {
        mm::Parsed q;
        EXPECT_EQ(Parse(u"set", params, q), DWORD(MCIERR_UNRECOGNIZED_COMMAND)) << Str(params);
    }
    // The commands after "set" are still found and whole.
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
