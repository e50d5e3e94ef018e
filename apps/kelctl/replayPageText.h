// The page's own text, made of the files of page/ when the tool is built.
#pragma once

#include <string_view>

namespace kelctl {

extern const std::string_view kPageBeforeStory;
extern const std::string_view kPageAfterStory;

}  // namespace kelctl
