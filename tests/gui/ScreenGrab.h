#pragma once
// Grabs the X screen the tests run on (what a user of the display sees) into a PNG.
#include <string>

namespace velko::test {

struct ScreenGrab {
    bool ok = false;
    int width = 0, height = 0;
    // Pixels below `fromRow` that differ from the window background
    // rgb(5,6,10) and from the empty screen: drawn content.
    long contentPixels = 0;
};

// `fromRow` skips the menubar, so that only the page counts as content.
ScreenGrab grabScreenToPng(const std::string& pngPath, int fromRow = 40);

}  // namespace velko::test
