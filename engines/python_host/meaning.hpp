#pragma once

/// What the text of the surface says of each field. `help()` shows it beside the attribute.

#include <cstddef>
#include <string_view>

#include "surface_text.hpp"

namespace decision_bounds::python {

/// The meaning in the line "- ``field``: meaning" of a class's documentation; empty where there is
/// no such line, as for a private field. No two classes have a public field of the same name.
constexpr std::string_view meaning_of(std::string_view field) {
  constexpr std::string_view before = "\n    - ``";
  constexpr std::string_view after = "``: ";
  std::string_view text = surface_text;
  for (std::size_t item = 0; (item = text.find(before)) != std::string_view::npos;) {
    text.remove_prefix(item + before.size());
    if (text.starts_with(field) && text.substr(field.size()).starts_with(after)) {
      text.remove_prefix(field.size() + after.size());
      return text.substr(0, text.find('\n'));
    }
  }
  return {};
}

}  // namespace decision_bounds::python
