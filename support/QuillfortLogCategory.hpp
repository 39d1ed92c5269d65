// The fixed set of log categories, one per component of the firewall; each log
// record carries the category's raw string beside the subsystem name.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string_view>
#include <utility>

#include "model/EnumTraits.hpp"

namespace quillfort {

enum class QuillfortLogCategory {
    app,
    agent,
    flowFilter,
    packetFilter,
    processObserver,
    ipc,
    diagnostics,
    tools,
    tests,
};

template <>
struct EnumTraits<QuillfortLogCategory> {
    static constexpr std::array<std::pair<QuillfortLogCategory, std::string_view>, 9> entries{{
        {QuillfortLogCategory::app, "app"},
        {QuillfortLogCategory::agent, "agent"},
        {QuillfortLogCategory::flowFilter, "flowFilter"},
        {QuillfortLogCategory::packetFilter, "packetFilter"},
        {QuillfortLogCategory::processObserver, "processObserver"},
        {QuillfortLogCategory::ipc, "ipc"},
        {QuillfortLogCategory::diagnostics, "diagnostics"},
        {QuillfortLogCategory::tools, "tools"},
        {QuillfortLogCategory::tests, "tests"},
    }};
};

}  // namespace quillfort

// Categories hash by their raw string, like every other raw-string enumeration.
template <>
struct std::hash<quillfort::QuillfortLogCategory> {
    std::size_t operator()(quillfort::QuillfortLogCategory category) const noexcept {
        return std::hash<std::string_view>{}(quillfort::rawValue(category));
    }
};
