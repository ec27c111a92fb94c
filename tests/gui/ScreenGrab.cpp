#include "ScreenGrab.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <cairo.h>

#include <cstdint>

namespace velko::test {

ScreenGrab grabScreenToPng(const std::string& pngPath, int fromRow) {
    ScreenGrab grab;
    Display* display = XOpenDisplay(nullptr);
    if (!display) return grab;
    Window root = DefaultRootWindow(display);
    XWindowAttributes attributes{};
    XGetWindowAttributes(display, root, &attributes);
    XImage* image = XGetImage(display, root, 0, 0, static_cast<unsigned>(attributes.width),
                              static_cast<unsigned>(attributes.height), AllPlanes, ZPixmap);
    if (!image) {
        XCloseDisplay(display);
        return grab;
    }
    grab.width = attributes.width;
    grab.height = attributes.height;
    cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_RGB24, grab.width, grab.height);
    unsigned char* data = cairo_image_surface_get_data(surface);
    int stride = cairo_image_surface_get_stride(surface);
    auto shiftOf = [](unsigned long mask) { return mask ? __builtin_ctzl(mask) : 0; };
    int rs = shiftOf(image->red_mask), gs = shiftOf(image->green_mask), bs = shiftOf(image->blue_mask);
    for (int y = 0; y < grab.height; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(data + y * stride);
        for (int x = 0; x < grab.width; ++x) {
            unsigned long pixel = XGetPixel(image, x, y);
            uint32_t r = (pixel & image->red_mask) >> rs, g = (pixel & image->green_mask) >> gs,
                     b = (pixel & image->blue_mask) >> bs;
            row[x] = (r << 16) | (g << 8) | b;
            bool background = (r == 5 && g == 6 && b == 10) || (r == 0 && g == 0 && b == 0);
            if (!background && y >= fromRow) ++grab.contentPixels;
        }
    }
    cairo_surface_mark_dirty(surface);
    grab.ok = cairo_surface_write_to_png(surface, pngPath.c_str()) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(surface);
    XDestroyImage(image);
    XCloseDisplay(display);
    return grab;
}

}  // namespace velko::test
