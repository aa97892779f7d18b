// The device's message documents read into the store's columns.
#pragma once

#include <string>
#include <string_view>

#include "store.h"

namespace ftcstore {

// Sets kind, category, code and text of row from row->body. False, with *why, when the body
// is not an XML document or is a known kind without its key field.
bool ClassifyMessage(MessageRow* row, std::string* why);

// "name version" of each bundle in an installed-bundle record, "; " between them; "" when the
// record lists none or cannot be read.
std::string InstalledBundles(std::string_view record);

}  // namespace ftcstore
