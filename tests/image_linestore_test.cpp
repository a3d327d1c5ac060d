// The line store: the left-edge shift after the window was moved left, the
// repair when no aligned window fitted, and where each row lands.
#include "support/image_fixture.h"

using Row = std::vector<int>;

class LineStoreTest : public ImageTest
{
protected:
    // Stores the raw lines into a new 8-pixel grey image of colorStep `step`
    // and returns the 4-bit pixel indices of each row, top row first.
    std::vector<Row> Store(SHORT step, LONG shift, LONG failed, const std::vector<std::vector<BYTE>> &lines)
    {
        g_settings.model = 2;
        g_dispReleased = 1;
        DWORD raw;
        EXPECT_EQ(tamrix_test::BeginScan(0, step, 8, (int)lines.size(), &raw), 1);
        g_alignShift = shift;
        g_alignFailed = failed;
        ImgStoreLine(0);
        for (const auto &line : lines) {
            EXPECT_EQ(line.size(), raw);
            std::copy(line.begin(), line.end(), g_rawLine);
            EXPECT_EQ(ImgStoreLine(1), 1);
        }
        tamrix_test::DibRows dib = tamrix_test::ReadDib(g_scanDC, g_scanBitmap, g_scanInfo->bmiHeader);
        std::vector<Row> rows(lines.size());
        for (size_t y = 0; y < lines.size(); y++)
            for (int x = 0; x < 8; x++)
                rows[y].push_back(dib.Index(x, (int)y));
        ImgFreeScanBuffers(0);
        return rows;
    }
};

TEST_F(LineStoreTest, AddedLeftPixelsAreDropped)
{
    // Four levels, one pixel added at the left (level 3), two rows.
    auto rows = Store(2, 1, 0, {{0xDB, 0x1B}, {0xC0, 0x00}});
    EXPECT_EQ(g_lineShiftBits, 2);
    EXPECT_EQ(g_lineShiftMask, 0xC0);
    EXPECT_EQ(g_lineKeepClrUsed, 0);
    EXPECT_EQ(rows, (std::vector<Row>{{1, 2, 3, 0, 1, 2, 3, 0}, {0, 0, 0, 0, 0, 0, 0, 0}}));

    // Eight levels (3-bit level in the top of each nibble), one added pixel.
    rows = Store(3, 1, 0, {{0xE2, 0x46, 0x8A, 0xCE}});
    EXPECT_EQ(g_lineShiftBits, 4);
    EXPECT_EQ(g_lineShiftMask, 0xF0);
    EXPECT_EQ(rows[0], (Row{2, 4, 6, 8, 10, 12, 14, 0}));

    // Three added pixels at four levels: the whole first byte minus one.
    rows = Store(2, 3, 0, {{0xFF, 0x6C}});
    EXPECT_EQ(g_lineShiftBits, 6);
    EXPECT_EQ(rows[0], (Row{3, 1, 2, 3, 0, 0, 0, 0}));

    // Two added pixels at 16 levels move a whole byte.
    EXPECT_EQ(Store(4, 2, 0, {{0xFE, 0x12, 0x34, 0x56}})[0], (Row{1, 2, 3, 4, 5, 6, 0, 0}));
}

TEST_F(LineStoreTest, UnalignedWindowRepeatsTheLastByte)
{
    auto rows = Store(2, 2, 1, {{0x1B, 0xE4}});
    EXPECT_EQ(g_lineShiftBits, 0);
    EXPECT_EQ(rows[0], (Row{0, 1, 2, 3, 0, 1, 2, 3}));
}
