// /etc/quillfort/filter.json as the filter reads it: any text, then the
// settings made of whatever dictionary it holds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "QuillfortFilter/daemon/FilterSettings.hpp"
#include "contracts/QuillfortFilterConfigurationFile.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillfort;
    auto dictionary = QuillfortFilterConfigurationFile::decode({reinterpret_cast<const char*>(data), size});
    if (!dictionary) return 0;
    std::vector<std::string> problems;
    const auto settings = FilterSettings::from(*dictionary, FilterOptions{}, problems);
    // What `quillfort filter` writes back reads as the same settings. (Not as
    // the same dictionary: a real without a fraction, 8.0, is written as 8.)
    auto rewritten = QuillfortFilterConfigurationFile::decode(QuillfortFilterConfigurationFile::encode(*dictionary));
    if (!rewritten || FilterSettings::from(*rewritten, FilterOptions{}, problems) != settings) __builtin_trap();
    return 0;
}
