// The files of the page, compiled in from page/.
#pragma once
#include <cstddef>
#include <vector>

namespace kovserve {

struct PageFile {
    const char* path;  // of the request
    const char* type;  // of the content; all text is UTF-8
    const char* data;
    size_t size;
};
extern const std::vector<PageFile> PAGE_FILES;

}  // namespace kovserve
