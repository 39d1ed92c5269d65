#include "QuillfortAgent/app/DisplayProbe.hpp"

#include <dlfcn.h>

namespace quillfort::DisplayProbe {

namespace {

bool nonEmpty(const ProcessInfo& processInfo, const char* name) {
    const auto value = processInfo.environmentValue(name);
    return value && !value->empty();
}

// The three calls of libxcb a try needs, with the library's own signatures.
struct Xcb {
    void* (*connect)(const char* display, int* screen);
    int (*hasError)(void* connection);
    void (*disconnect)(void* connection);
};

}  // namespace

std::optional<std::string> problem(const ProcessInfo& processInfo) {
    if (!nonEmpty(processInfo, "DISPLAY")) {
        if (nonEmpty(processInfo, "WAYLAND_DISPLAY")) return std::nullopt;
        return "no display found (DISPLAY and WAYLAND_DISPLAY are unset)";
    }
    const std::string display = *processInfo.environmentValue("DISPLAY");
    void* library = ::dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* why = ::dlerror();
        return "cannot open the X display " + display + " (" + (why ? why : "libxcb.so.1 not found") + ")";
    }
    const Xcb xcb{
        .connect = reinterpret_cast<void* (*)(const char*, int*)>(::dlsym(library, "xcb_connect")),
        .hasError = reinterpret_cast<int (*)(void*)>(::dlsym(library, "xcb_connection_has_error")),
        .disconnect = reinterpret_cast<void (*)(void*)>(::dlsym(library, "xcb_disconnect")),
    };
    bool failed = true;
    if (xcb.connect && xcb.hasError && xcb.disconnect) {
        // xcb_connect never returns null: a failed connection is an error object
        // that must still be handed back.
        void* connection = xcb.connect(display.c_str(), nullptr);
        failed = xcb.hasError(connection) != 0;
        xcb.disconnect(connection);
    }
    ::dlclose(library);
    if (failed) return "cannot open the X display " + display;
    return std::nullopt;
}

}  // namespace quillfort::DisplayProbe
