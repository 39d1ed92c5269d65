#include "contracts/QuillfortPromptBridgeEnvelopes.hpp"

namespace quillfort {

std::string bridgeFileName(const Uuid& promptID) {
    std::string name = promptID.uppercaseString();
    name += '.';
    name += bridgeFileExtension;
    return name;
}

}  // namespace quillfort
