// Guards against: a cursor drawn past the frame's edges (memory outside the frame), a
// translucent cursor darkened twice or left see-through, and a frame made non-opaque by it.
#include "linux/capture/cursor_image.h"

#include <gtest/gtest.h>

namespace gb::linuxp {
namespace {

TEST(CursorImageTest, BlendsPremultipliedAndStaysInsideTheFrame) {
    // 2x2 cursor: opaque red, half-transparent premultiplied white, fully clear, opaque blue.
    const CursorImage cursor{2, 2, 0, 0, {0xffff0000u, 0x80808080u, 0x00000000u, 0xff0000ffu}};
    struct Case {
        int left, top;
        std::vector<uint32_t> expected;  // the 3x3 frame afterwards, all grey 0x40 before
    };
    const uint32_t g = 0xff404040u;
    const uint32_t mix = 0xffa0a0a0u;  // 0x80 + 0x40 * 127 / 255
    const Case cases[] = {
        {0, 0, {0xffff0000u, mix, g, g, 0xff0000ffu, g, g, g, g}},
        {2, 2, {g, g, g, g, g, g, g, g, 0xffff0000u}},     // clipped right and bottom
        {-1, -1, {0xff0000ffu, g, g, g, g, g, g, g, g}},   // clipped left and top
        {3, 0, {g, g, g, g, g, g, g, g, g}},               // wholly outside
    };
    for (const Case& c : cases) {
        // One guard pixel after each row and after the frame: none of them may change.
        std::vector<uint32_t> memory(4 * 3 + 1, g);
        cursor.drawInto(reinterpret_cast<uint8_t*>(memory.data()), 4 * sizeof(uint32_t), 3, 3,
                        c.left, c.top);
        for (int y = 0; y < 3; ++y) {
            for (int x = 0; x < 3; ++x) {
                EXPECT_EQ(memory[y * 4 + x], c.expected[y * 3 + x])
                    << "at " << c.left << "," << c.top << " pixel " << x << "," << y;
            }
            EXPECT_EQ(memory[y * 4 + 3], g) << "guard of row " << y;
        }
        EXPECT_EQ(memory.back(), g);
    }
}

}  // namespace
}  // namespace gb::linuxp
