// The page, as it stands in page.html.
#pragma once

#include <string_view>

namespace dashboard {

extern const std::string_view kPage;

}  // namespace dashboard
