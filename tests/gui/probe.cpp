// velko_gui_probe: real input and screenshots on the current X display, for
// trying the program by hand under Xvfb:
//   velko_gui_probe click X Y | type TEXT | grab FILE.png
// ("\n" in TEXT is Return). Exit status 0 on success.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "GuiSupport.h"
#include "ScreenGrab.h"

int main(int argc, char** argv) {
    std::string command = argc > 1 ? argv[1] : "";
    if (command == "click" && argc == 4) return velko::test::clickRealPointer(std::atoi(argv[2]), std::atoi(argv[3])) ? 0 : 1;
    if (command == "type" && argc == 3) {
        std::string text;
        for (const char* c = argv[2]; *c; ++c) {
            if (c[0] == '\\' && c[1] == 'n') {
                text += '\n';
                ++c;
            } else {
                text += *c;
            }
        }
        return velko::test::typeRealKeys(text) ? 0 : 1;
    }
    if (command == "grab" && argc == 3) {
        auto grab = velko::test::grabScreenToPng(argv[2]);
        std::printf("%dx%d, %ld content pixels\n", grab.width, grab.height, grab.contentPixels);
        return grab.ok ? 0 : 1;
    }
    std::fprintf(stderr, "usage: velko_gui_probe click X Y | type TEXT | grab FILE.png\n");
    return 2;
}
