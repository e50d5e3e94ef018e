// Reading the worked examples out of the format documents.
#pragma once

#include <string>

/// The bytes of the first ```hexdump block of docs/formats/`document`; a row is an offset, a colon,
/// bytes, and perhaps a bar and a remark. Fails the test where a row's offset is wrong.
std::string documentedBytes(const std::string& document);
