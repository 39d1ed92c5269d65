#include "QuillfortAgent/app/DisplayProbe.hpp"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

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

bool waylandAnswers(const ProcessInfo& processInfo) {
    if (!nonEmpty(processInfo, "WAYLAND_DISPLAY")) return false;
    std::filesystem::path socketPath = *processInfo.environmentValue("WAYLAND_DISPLAY");
    if (socketPath.is_relative()) {
        if (!nonEmpty(processInfo, "XDG_RUNTIME_DIR")) return false;
        socketPath = std::filesystem::path(*processInfo.environmentValue("XDG_RUNTIME_DIR")) / socketPath;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath.native().size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.native().size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(fd);
    return connected;
}

bool xDisplayAnswers(const ProcessInfo& processInfo) {
    if (!nonEmpty(processInfo, "DISPLAY")) return false;
    void* library = ::dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return false;  // no X client library: no X display for us either
    const Xcb xcb{
        .connect = reinterpret_cast<void* (*)(const char*, int*)>(::dlsym(library, "xcb_connect")),
        .hasError = reinterpret_cast<int (*)(void*)>(::dlsym(library, "xcb_connection_has_error")),
        .disconnect = reinterpret_cast<void (*)(void*)>(::dlsym(library, "xcb_disconnect")),
    };
    bool answered = false;
    if (xcb.connect && xcb.hasError && xcb.disconnect) {
        // xcb_connect never returns null: a failed connection is an error object
        // that must still be handed back.
        void* connection = xcb.connect(processInfo.environmentValue("DISPLAY")->c_str(), nullptr);
        answered = xcb.hasError(connection) == 0;
        xcb.disconnect(connection);
    }
    ::dlclose(library);
    return answered;
}

std::optional<std::string> problem(const ProcessInfo& processInfo) {
    if (nonEmpty(processInfo, "QT_QPA_PLATFORM")) return std::nullopt;
    const bool wayland = nonEmpty(processInfo, "WAYLAND_DISPLAY");
    const bool x = nonEmpty(processInfo, "DISPLAY");
    if (!wayland && !x) return "no display found (DISPLAY and WAYLAND_DISPLAY are unset)";
    if ((wayland && waylandAnswers(processInfo)) || (x && xDisplayAnswers(processInfo))) return std::nullopt;
    std::string why;
    if (wayland) why = "no Wayland compositor answers on " + *processInfo.environmentValue("WAYLAND_DISPLAY");
    if (x) why += (why.empty() ? "" : " and ") + std::string("cannot open the X display ") +
                  *processInfo.environmentValue("DISPLAY");
    return why;
}

}  // namespace quillfort::DisplayProbe
