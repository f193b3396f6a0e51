#pragma once

#include <optional>
#include <string_view>

#include "profiles/profile_document.h"

namespace veerline {

// Decodes a profiles file of the usual shape straight into the document, without building a
// JSON tree first: the shim reads the file on every tool start. Answers nothing for anything out
// of the ordinary (broken JSON, a wrong type, a missing or repeated key, a version other than
// today's or older); `decodeDocument` then does the full job and says what is wrong. Whenever it
// answers, the answer equals `documentFromJSON` of the same text.
std::optional<ProfileDocument> decodeDocumentQuickly(std::string_view text) noexcept;

}  // namespace veerline
