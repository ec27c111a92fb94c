#pragma once
// Grabs the X screen the tests run on (what a user of the display sees) into a PNG.
#include <string>

namespace velko::test {

struct ScreenGrab {
    bool ok = false;
    int width = 0, height = 0;
    // Pixels that differ from the window background rgb(5,6,10): drawn content.
    long contentPixels = 0;
};

ScreenGrab grabScreenToPng(const std::string& pngPath);

}  // namespace velko::test
