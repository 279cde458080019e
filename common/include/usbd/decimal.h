#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace usbd {

// The unsigned decimal number that is the whole of `text`, if it is one and lies in
// [min, max]: digits only, so no sign, space or prefix, and no value that does not fit.
template <typename T>
std::optional<T> parseDecimal(std::string_view text, T min, T max)
{
    T value{};
    const char *const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, value, 10);
    if (text.empty() || error != std::errc() || end != last || value < min || value > max)
        return std::nullopt;
    return value;
}

} // namespace usbd
