#include "ListLines.h"

#include "Md5.h"
#include "Text.h"

#include <sstream>

namespace vxrun {

bool isJson(const std::string& text) {
    const size_t start = text.find_first_not_of(" \t\r\n");
    return start != text.npos && text[start] == '{';
}

bool isTable(const std::string& path, const std::string& text) {
    if (isJson(text)) return false;
    if (text.find("#tb 0:") != text.npos) return true;
    bool found = false;
    forEachLine(path, text, [&](const std::string& line) {
        found = line.find(',') != line.npos;
        return !found && findMd5(line).empty();
    });
    return found;
}

void forEachLine(const std::string& path, const std::string& text,
                 const std::function<bool(const std::string&)>& visit) {
    std::istringstream lines(text);
    size_t number = 0;
    bool goesOn = true;
    for (std::string line; goesOn && std::getline(lines, line);) {
        ++number;
        try {
            if (!line.empty() && line.back() == '\r') line.pop_back();
            if (line.find('\r') != line.npos) {
                throw Failure("a carriage return within a line; lines end with LF or CR LF");
            }
            const size_t start = line.find_first_not_of(" \t");
            if (start != line.npos && line[start] != '#' && line[start] != ';')
                goesOn = visit(line);
        } catch (const Failure& failure) {
            throw Failure(concat(path, ":", number, ": ", failure.what()));
        }
    }
}

}  // namespace vxrun
