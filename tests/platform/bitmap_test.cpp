// Device bitmaps: one block, the header, then rows padded to four bytes from byte 8.
#include "bitmap.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr unsigned char kPadding = 0xA5;

TEST(platform_bitmap, HeaderAndRowLayout) {
    for (int format : {QZ_BITMAP_GRAY8, QZ_BITMAP_RGB24}) {
        const int bpp = format == QZ_BITMAP_RGB24 ? 3 : 1;
        for (int w : {1, 2, 3, 4, 5, 7, 8, 100, 641}) {
            const int h = 3;
            SCOPED_TRACE("format " + std::to_string(format) + " width " + std::to_string(w));
            std::unique_ptr<qz_bitmap, void (*)(void *)> bm(NewBitmapWithFormat(w, h, format),
                                                            std::free);
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
    EXPECT_EQ(NewBitmapWithFormat(0, 10, QZ_BITMAP_RGB24), nullptr);
    EXPECT_EQ(NewBitmapWithFormat(21845, 1, QZ_BITMAP_RGB24), nullptr) << "stride beyond 16 bits";
}

} // namespace
