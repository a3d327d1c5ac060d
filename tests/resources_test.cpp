// The driver's resources as the module carries them: the command table byte
// for byte, the string table, the dialog templates and the icon, all read
// back through the platform's resource functions from the test program,
// which embeds the same resource file as the driver module.
#include "support/platform_fixture.h"

#include "resource.h"

#include <cstring>
#include <string>
#include <vector>

namespace
{

class ResourcesTest : public PlatformTest
{
protected:
    static std::vector<BYTE> Resource(LPCWSTR name, LPCWSTR type)
    {
        HMODULE module = GetModuleHandleW(nullptr);
        HRSRC info = FindResourceW(module, name, type);
        auto *bytes = info ? static_cast<const BYTE *>(LockResource(LoadResource(module, info))) : nullptr;
        return bytes ? std::vector<BYTE>(bytes, bytes + SizeofResource(module, info)) : std::vector<BYTE>{};
    }
    static std::u16string String(UINT id)
    {
        WCHAR buf[256];
        int n = LoadStringW(GetModuleHandleW(nullptr), id, buf, 256);
        return std::u16string(buf, n > 0 ? n : 0);
    }
};

// Little-endian reader over a resource's bytes.
struct Reader {
    const std::vector<BYTE> &b;
    size_t at = 0;
    WORD Word()
    {
        at += 2;
        return static_cast<WORD>(b.at(at - 2) | (b.at(at - 1) << 8));
    }
    DWORD Dword()
    {
        DWORD lo = Word();
        return lo | (static_cast<DWORD>(Word()) << 16);
    }
    std::u16string Sz()
    {
        std::u16string s;
        for (WORD c; (c = Word()) != 0;)
            s.push_back(static_cast<char16_t>(c));
        return s;
    }
    // A dialog field: 0 (none), 0xFFFF + ordinal (returned as "#n"), or a string.
    std::u16string Field()
    {
        WORD first = Word();
        if (first == 0xFFFF) {
            std::string n = "#" + std::to_string(Word());
            return std::u16string(n.begin(), n.end());
        }
        at -= 2;
        return Sz();
    }
};

// ---- Command table ---------------------------------------------------------

struct TableEntry {
    std::u16string name;
    DWORD value;
    WORD type;
    bool padded; // stored with a 16-bit zero between value and type
};

enum : WORD { HEAD, STRING, INTEGER, END_COMMAND, RETURN, FLAG, END_LIST, RECT, CONSTANT, END_CONSTANT };

std::vector<TableEntry> ExpectedCommandTable()
{
    std::vector<TableEntry> t;
    auto add = [&](std::u16string n, DWORD v, WORD type, bool padded = false) { t.push_back({n, v, type, padded}); };
    auto items = [&](std::initializer_list<std::pair<const char16_t *, DWORD>> list) {
        for (auto &i : list)
            add(i.first, i.second, INTEGER);
    };
    auto head = [&](std::u16string n, DWORD v, DWORD ret) {
        add(n, v, HEAD);
        if (ret)
            add(u"", ret, RETURN);
        add(u"notify", 1, FLAG), add(u"wait", 2, FLAG);
    };
    auto end = [&] { add(u"", 0, END_COMMAND); };
    head(u"close", 0x0804, 0), end();
    head(u"copy", 0x0852, 0), end();
    head(u"capability", 0x080B, 2), add(u"", 0x100, CONSTANT);
    // clang-format off
    items({{u"can record", 1}, {u"has audio", 2}, {u"has video", 3}, {u"uses files", 5}, {u"compound device", 6},
           {u"device type", 4}, {u"can eject", 7}, {u"can play", 8}, {u"can save", 9},
           {u"can scan color", 0x4001}, {u"has adf", 0x4002}, {u"can manual start", 0x4003}, {u"can stop", 0x4004},
           {u"minimum startx", 0x4005}, {u"minimum starty", 0x4006}, {u"maximum width", 0x4007},
           {u"maximum length", 0x4008}, {u"maximum resolution", 0x4009}, {u"minimum resolution", 0x400A},
           {u"interval resolution", 0x400B}, {u"maximum contrast", 0x400C}, {u"minimum contrast", 0x400D},
           {u"interval contrast", 0x400E}, {u"maximum colorstep", 0x400F}, {u"minimum colorstep", 0x4010},
           {u"interval colorstep", 0x4011}, {u"use mode dialog", 0x4012}, {u"can scanread", 0x4013},
           {u"can halftone", 0x4014}});
    // clang-format on
    add(u"", 0, END_CONSTANT), end();
    head(u"info", 0x080A, 1), add(u"product", 0x100, FLAG), end();
    head(u"open", 0x0803, 2);
    add(u"type", 0x2000, STRING), add(u"element", 0x200, STRING), add(u"alias", 0x400, STRING);
    add(u"shareable", 0x100, FLAG), end();
    head(u"put", 0x0842, 0), add(u"at", 0x10000, RECT), add(u"source", 0x20000, FLAG);
    add(u"destination", 0x40000, FLAG), end();
    head(u"save", 0x0813, 0), add(u"", 0x100, STRING), end();
    head(u"scanmode", 0x0C02, 0);
    add(u"resolution", 0x10000, INTEGER), add(u"contrast", 0x20000, INTEGER), add(u"colorstep", 0x40000, INTEGER);
    add(u"colormode", 0x200000, INTEGER), add(u"halftone", 0x80000, FLAG), add(u"dialog", 0x100000, FLAG), end();
    head(u"scanread", 0x0C01, 0), add(u"rect", 0x10000, RECT), end();
    head(u"set", 0x080D, 0), add(u"time format", 0x400, CONSTANT);
    add(u"millimeter", 0x4001, INTEGER, true), add(u"inch", 0x4002, INTEGER, true), add(u"dot", 0x4003, INTEGER, true);
    add(u"", 0, END_CONSTANT), end();
    head(u"status", 0x0814, 2), add(u"", 0x100, CONSTANT), items({{u"ready", 7}, {u"scanner", 0x4001}}), end();
    head(u"stop", 0x0808, 0), end();
    head(u"where", 0x0843, 7), add(u"source", 0x20000, FLAG), add(u"destination", 0x40000, FLAG), end();
    head(u"window", 0x0841, 0), add(u"handle", 0x10000, CONSTANT), add(u"default", 0, INTEGER);
    add(u"", 0, END_CONSTANT), add(u"state", 0x40000, CONSTANT);
    items({{u"hide", 0},
           {u"minimize", 6},
           {u"restore", 9},
           {u"show", 5},
           {u"maximized", 3},
           {u"minimized", 2},
           {u"iconic", 7},
           {u"no action", 8},
           {u"no activate", 4},
           {u"normal", 1}});
    add(u"", 0, END_CONSTANT), add(u"text", 0x80000, STRING), end();
    add(u"", 0, END_LIST);
    return t;
}

TEST_F(ResourcesTest, CommandTableMatchesTheShippedLayoutEntryByEntry)
{
    std::vector<BYTE> blob = Resource(MAKEINTRESOURCEW(IDR_COMMAND_TABLE), RT_RCDATA);
    ASSERT_EQ(blob.size(), 2796u);
    // The driver names the table by string 2; that name finds the same bytes.
    std::u16string name = String(IDS_COMMAND_TABLE);
    EXPECT_EQ(name, u"#96");
    EXPECT_EQ(Resource(reinterpret_cast<LPCWSTR>(name.c_str()), RT_RCDATA), blob);

    std::vector<TableEntry> expected = ExpectedCommandTable();
    Reader r{blob};
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("entry " + std::to_string(i));
        const TableEntry &e = expected[i];
        ASSERT_LT(r.at, blob.size());
        EXPECT_EQ(r.Sz(), e.name);
        EXPECT_EQ(r.Dword(), e.value);
        if (e.padded) {
            EXPECT_EQ(r.Word(), 0u);
        }
        EXPECT_EQ(r.Word(), e.type);
    }
    EXPECT_EQ(r.at, blob.size()) << "bytes after the end of the command list";
}

// ---- Strings ---------------------------------------------------------------

TEST_F(ResourcesTest, StringTableTexts)
{
    // UTF-16 exactly as shipped, Japanese and full-width forms included.
    EXPECT_EQ(String(IDS_PRODUCT), u"Ｋｏｒｖａｎｅ　イメージスキャナ");
    EXPECT_EQ(String(IDS_ERR_SCANNER_ABNORMAL), u"スキャナ装置の異常状態を通知するレスポンスが返りました。");
    EXPECT_EQ(String(IDS_ERR_COMMAND_SEQUENCE), u"コマンドの実行手順が不正です。");
    EXPECT_EQ(String(IDS_MODEL_BASE + 7) + String(IDS_MODE_TITLE_BASE + 3),
              u"Korvane KT-700拡張パラメータ設定  -  KS-630");
    EXPECT_EQ(String(IDS_PORT_BASE + 9) + String(IDS_BAUD_BASE + 3) + String(IDS_IF_RS232C), u"COM919200RS-232C");
    EXPECT_EQ(String(IDS_DITHER_FIRST + 2) + String(IDS_GAMMA_PRN2), u"ディザ１(パターン３)ＰＲＮ２");
}

TEST_F(ResourcesTest, LoadStringBufferRulesAndResourceLookupErrors)
{
    HMODULE module = GetModuleHandleW(nullptr);
    const std::u16string product = String(IDS_PRODUCT);
    WCHAR buf[8];
    // Truncation: at most max - 1 characters and a NUL; the count copied.
    std::memset(buf, 0x55, sizeof buf);
    EXPECT_EQ(LoadStringW(module, IDS_PRODUCT, buf, 5), 4);
    EXPECT_EQ(std::u16string(buf, 5), product.substr(0, 4) + u'\0');
    EXPECT_EQ(buf[5], 0x5555) << "wrote beyond the given size";
    EXPECT_EQ(LoadStringW(module, IDS_PRODUCT, buf, 1), 0);
    EXPECT_EQ(buf[0], 0);
    // Size 0: a read-only pointer to the text itself, and its full length.
    const WCHAR *direct = nullptr;
    int n = LoadStringW(module, IDS_PRODUCT, reinterpret_cast<LPWSTR>(&direct), 0);
    ASSERT_EQ(n, static_cast<int>(product.size()));
    EXPECT_EQ(std::u16string(direct, n), product);
    // Missing strings, in an existing block and in a missing one.
    EXPECT_EQ(LoadStringW(module, 10, buf, 8), 0);
    EXPECT_EQ(buf[0], 0);
    EXPECT_EQ(LoadStringW(module, 4000, buf, 8), 0);

    HRSRC byOrdinal = FindResourceW(module, MAKEINTRESOURCEW(IDD_CONFIG), RT_DIALOG);
    ASSERT_NE(byOrdinal, nullptr);
    EXPECT_EQ(FindResourceW(module, reinterpret_cast<LPCWSTR>(u"#1001"), RT_DIALOG), byOrdinal);
    EXPECT_EQ(FindResourceW(nullptr, MAKEINTRESOURCEW(IDD_CONFIG), RT_DIALOG), byOrdinal);
    EXPECT_EQ(FindResourceW(module, MAKEINTRESOURCEW(1005), RT_DIALOG), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_NAME_NOT_FOUND));
    EXPECT_EQ(FindResourceW(module, MAKEINTRESOURCEW(1), RT_MENU), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_RESOURCE_TYPE_NOT_FOUND));
    EXPECT_EQ(SizeofResource(module, reinterpret_cast<HRSRC>(&module)), 0u);

    // One-shot injected failures.
    PlatFailCall("LoadStringW", 1, 0);
    EXPECT_EQ(LoadStringW(module, IDS_PRODUCT, buf, 8), 0);
    EXPECT_EQ(LoadStringW(module, IDS_PRODUCT, buf, 8), 7);
    PlatFailCall("FindResourceW", 1, 0);
    EXPECT_EQ(FindResourceW(module, MAKEINTRESOURCEW(IDD_CONFIG), RT_DIALOG), nullptr);
    PlatFailCall("LoadResource", 1, 0);
    EXPECT_EQ(LoadResource(module, byOrdinal), nullptr);
    EXPECT_NE(LoadResource(module, byOrdinal), nullptr);
}

// ---- Dialogs ---------------------------------------------------------------

struct Item {
    WORD id;
    DWORD style;
    std::u16string cls, text;
    std::vector<short> pos; // x, y, cx, cy
};
struct Dialog {
    DWORD style;
    std::vector<short> pos;
    std::u16string title;
    std::vector<Item> items;
};

Dialog ParseDialog(const std::vector<BYTE> &b)
{
    Reader r{b};
    auto pos = [&] {
        std::vector<short> p;
        for (int i = 0; i < 4; ++i)
            p.push_back(static_cast<short>(r.Word()));
        return p;
    };
    Dialog d{};
    d.style = r.Dword();
    r.Dword(); // extended style
    WORD count = r.Word();
    d.pos = pos();
    r.Field(), r.Field(); // menu, class
    d.title = r.Sz();
    if (d.style & DS_SETFONT)
        r.Word(), r.Sz();
    for (WORD i = 0; i < count; ++i) {
        r.at = (r.at + 3) & ~size_t(3);
        Item it{};
        it.style = r.Dword();
        r.Dword();
        it.pos = pos();
        it.id = r.Word();
        it.cls = r.Field();
        it.text = r.Field();
        r.at += r.Word(); // creation data
        d.items.push_back(it);
    }
    return d;
}

TEST_F(ResourcesTest, DialogTemplates)
{
    const DWORD frame = WS_POPUP | WS_CAPTION | WS_SYSMENU | DS_MODALFRAME;
    const DWORD list = WS_CHILD | WS_VISIBLE | CBS_DROPDOWNLIST | WS_VSCROLL | WS_TABSTOP;
    struct Expect {
        UINT id;
        std::vector<short> pos;
        std::u16string title;
        std::vector<WORD> ids; // tab order
    } expect[] = {
        {IDD_CONFIG, {30, 14, 231, 72}, u"イメージスキャナの設定", {100, 108, 110, 111, 1, 2, 115, 117}},
        {IDD_SERIAL, {40, 12, 144, 88}, u"ＲＳ－２３２Ｃの設定", {200, 201, 204, 205, 207, 1, 2}},
        {IDD_GPIB, {41, 29, 140, 50}, u"ＧＰ－ＩＢの設定", {300, 303, 304, 1, 2}},
        {IDD_SCANMODE, {100, 80, 191, 141}, u"拡張パラメータ設定", {402, 401, 403, 404, 405, 406, 407, 408, 411,
                                                                    414, 417, 420, 421, 409, 412, 415, 418, 422,
                                                                    423, 410, 413, 416, 419, 424, 425, 1,   2}},
    };
    std::vector<Dialog> dialogs;
    for (const Expect &e : expect) {
        SCOPED_TRACE(e.id);
        std::vector<BYTE> bytes = Resource(MAKEINTRESOURCEW(e.id), RT_DIALOG);
        ASSERT_FALSE(bytes.empty());
        Dialog d = ParseDialog(bytes);
        EXPECT_EQ(d.style & (frame | WS_CHILD), frame);
        EXPECT_EQ(d.pos, e.pos);
        EXPECT_EQ(d.title, e.title);
        std::vector<WORD> ids;
        for (const Item &it : d.items) {
            ids.push_back(it.id);
            EXPECT_EQ(it.style & (WS_CHILD | WS_VISIBLE), WS_CHILD | WS_VISIBLE) << it.id;
            if (it.id == IDOK) { // OK starts a group and is the default button
                EXPECT_EQ(it.style & (WS_GROUP | 0xF), WS_GROUP | BS_DEFPUSHBUTTON);
            }
        }
        EXPECT_EQ(ids, e.ids);
        dialogs.push_back(d);
    }
    auto item = [&](size_t dlg, WORD id) {
        for (const Item &it : dialogs[dlg].items)
            if (it.id == id)
                return it;
        ADD_FAILURE() << "no control " << id;
        return Item{};
    };
    // Drop-down lists are combo boxes by their predefined class.
    EXPECT_EQ(item(0, IDC_CFG_MODEL).style, list);
    EXPECT_EQ(item(0, IDC_CFG_MODEL).cls, u"#133");
    EXPECT_EQ(item(1, IDC_SER_SPEED).style, list);
    EXPECT_EQ(item(0, IDC_CFG_MODEL_LABEL).text + item(0, IDC_CFG_HELP).text + item(0, IDCANCEL).text,
              u"イメージスキャナ(&D):ﾍﾙﾌﾟ(&H)ｷｬﾝｾﾙ");
    EXPECT_EQ(item(1, IDC_SER_STOPBITS).text, u"ストップビット: １ bit");
    EXPECT_EQ(item(1, IDC_SER_PORT_GROUP).style & (WS_GROUP | 0xF), WS_GROUP | BS_GROUPBOX);
    // GP-IB dialog: the spin control is the driver's own class.
    EXPECT_EQ(lstrcmpiW(item(2, IDC_GPIB_SPIN).cls.c_str(), u"SCANARROW"), 0);
    EXPECT_EQ(item(2, IDC_GPIB_ADDRESS).style & (ES_CENTER | WS_BORDER | WS_TABSTOP),
              ES_CENTER | WS_BORDER | WS_TABSTOP);
    EXPECT_EQ(item(2, IDC_GPIB_GROUP).text, u"GP-IB 機器番号(&A)");
    // Scan-mode dialog: value fields three ids below their scroll bars.
    for (WORD bar = IDC_MODE_BRIGHT_SCROLL; bar <= IDC_MODE_SAT_SCROLL; ++bar) {
        Item sb = item(3, bar), value = item(3, bar - IDC_MODE_VALUE_OFFSET);
        EXPECT_EQ(sb.cls + value.cls, u"#132#130");
        EXPECT_EQ(value.pos.at(0), 78);
        EXPECT_EQ(value.pos.at(1), sb.pos.at(1) == 88 ? 87 : sb.pos.at(1));
    }
    for (WORD combo : {IDC_MODE_DITHER, IDC_MODE_GAMMA})
        EXPECT_EQ(item(3, combo).style & (CBS_SORT | 0x3), CBS_SORT | CBS_DROPDOWNLIST);
    EXPECT_EQ(item(3, IDC_MODE_OR).style & (WS_GROUP | 0xF), WS_GROUP | BS_AUTOCHECKBOX);
}

TEST_F(ResourcesTest, ScanIconGroupReferencesItsImages)
{
    // Looked up by name in any case, as LoadIcon does.
    std::vector<BYTE> group = Resource(reinterpret_cast<LPCWSTR>(u"scanicon"), RT_GROUP_ICON);
    ASSERT_GE(group.size(), 6u);
    Reader r{group};
    EXPECT_EQ(r.Dword(), 0x10000u); // reserved, 1 = icons
    WORD count = r.Word();
    bool has32 = false;
    for (WORD i = 0; i < count; ++i) {
        BYTE width = group.at(r.at);
        r.at += 8;
        DWORD bytes = r.Dword();
        std::vector<BYTE> image = Resource(MAKEINTRESOURCEW(r.Word()), RT_ICON);
        ASSERT_EQ(image.size(), bytes) << "icon image " << i;
        Reader h{image};
        EXPECT_EQ(h.Dword(), 40u); // BITMAPINFOHEADER
        EXPECT_EQ(static_cast<BYTE>(h.Dword()), width);
        has32 = has32 || width == 32;
    }
    EXPECT_TRUE(has32);
}

} // namespace
