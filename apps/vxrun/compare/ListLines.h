// ListLines: the lines of lists that are plain text.
#pragma once

#include <functional>
#include <string>

namespace vxrun {

// Whether `text` is JSON.
bool isJson(const std::string& text);
// Whether `text` is a table of FFmpeg's: it has such a header, or a comma in a line before any MD5.
bool isTable(const std::string& path, const std::string& text);

// Visits the lines that are neither empty nor begin like a comment, until `visit` returns false.
// What it throws is thrown with the file and line in front.
void forEachLine(const std::string& path, const std::string& text,
                 const std::function<bool(const std::string& line)>& visit);

}  // namespace vxrun
