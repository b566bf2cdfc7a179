// Device bitmaps (one block: header, then padded rows from byte 8) and the display answer.
#include "bitmap.h"
#include "host_platform.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr unsigned char kPadding = 0xA5;

struct Free {
    void operator()(qz_bitmap *b) const { std::free(b); }
};
using BitmapPtr = std::unique_ptr<qz_bitmap, Free>;

TEST(platform_bitmap, HeaderAndRowLayout) {
    for (int format : {QZ_BITMAP_GRAY8, QZ_BITMAP_RGB24}) {
        const int bpp = format == QZ_BITMAP_RGB24 ? 3 : 1;
        for (int w : {1, 2, 3, 4, 5, 7, 8, 100, 641}) {
            const int h = 3;
            SCOPED_TRACE("format " + std::to_string(format) + " width " + std::to_string(w));
            BitmapPtr bm(NewBitmapWithFormat(w, h, format));
            ASSERT_NE(bm, nullptr);
            const auto *raw = reinterpret_cast<const unsigned char *>(bm.get());
            EXPECT_EQ(bm->width, w);
            EXPECT_EQ(bm->height, h);
            EXPECT_EQ(bm->format, format);
            std::uint16_t stride;
            std::memcpy(&stride, raw + 6, 2);
            EXPECT_EQ(stride, bm->stride);
            EXPECT_EQ(bm->data - raw, 8);
            EXPECT_GT(stride, w * bpp) << "rows must be padded";
            EXPECT_EQ(stride % 4, 0);
            for (int y = 0; y < h; y++) {
                const unsigned char *row = bm->data + y * stride;
                for (int x = 0; x < w * bpp; x++)
                    ASSERT_EQ(row[x], 0) << "pixel byte " << x << " row " << y;
                for (int x = w * bpp; x < stride; x++)
                    ASSERT_EQ(row[x], kPadding) << "padding byte " << x << " row " << y;
            }
        }
    }
}

TEST(platform_bitmap, WritingEveryPixelLeavesPaddingAlone) {
    BitmapPtr bm(NewBitmapWithFormat(13, 9, QZ_BITMAP_RGB24));
    ASSERT_NE(bm, nullptr);
    for (int y = 0; y < 9; y++)
        std::memset(bm->data + y * bm->stride, 0x11, 13 * 3); // the whole last row too
    for (int y = 0; y < 9; y++)
        for (int x = 13 * 3; x < bm->stride; x++)
            EXPECT_EQ(bm->data[y * bm->stride + x], kPadding);
}

TEST(platform_bitmap, RejectsAbsurdRequests) {
    EXPECT_EQ(NewBitmapWithFormat(0, 10, QZ_BITMAP_RGB24), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(10, 0, QZ_BITMAP_RGB24), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(-1, 10, QZ_BITMAP_GRAY8), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(10, -5, QZ_BITMAP_GRAY8), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(65536, 1, QZ_BITMAP_GRAY8), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(1, 65536, QZ_BITMAP_GRAY8), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(10, 10, 2), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(10, 10, -1), nullptr);
    // Rows that would not fit a 16-bit stride.
    EXPECT_EQ(NewBitmapWithFormat(21845, 1, QZ_BITMAP_RGB24), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(65531, 1, QZ_BITMAP_GRAY8), nullptr);
    BitmapPtr widest(NewBitmapWithFormat(65528, 1, QZ_BITMAP_GRAY8));
    ASSERT_NE(widest, nullptr);
    EXPECT_EQ(widest->stride, 65532);
}

TEST(platform_display, ColourByDefaultAndSwitchable) {
    EXPECT_NE(device_display_colormask(), 0);
    host_set_display_color(0);
    EXPECT_EQ(device_display_colormask(), 0);
    host_set_display_color(1);
    EXPECT_NE(device_display_colormask(), 0);
}

} // namespace
