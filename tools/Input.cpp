#include "Input.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>
#include <vector>

#include "Exit.h"
#include "Output.h"

namespace nipcctl {

std::string readAll(const std::string& path) {
    const bool standardInput = path == "-";
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const auto fail = [&] {
        const std::string name = standardInput ? "standard input" : inQuotes(path);
        return Failure(Exit::InputOutput, name + " cannot be read: " + std::generic_category().message(errno));
    };
    std::unique_ptr<std::FILE, Close> opened(standardInput ? nullptr : std::fopen(path.c_str(), "rbe"));
    if (!opened && !standardInput) throw fail();
    std::FILE* const file = standardInput ? stdin : opened.get();
    std::string content;
    std::vector<char> buffer(65536);
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file))
        content.append(buffer.data(), count);
    if (std::ferror(file) != 0) throw fail();
    return content;
}

}  // namespace nipcctl
