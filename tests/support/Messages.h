#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace NuvekTest {

/// The what() of the std::runtime_error that action throws, or "(nothing thrown)".
inline std::string messageOf(std::function<void()> const& action)
{
    try
    {
        action();
    }
    catch (std::runtime_error const& error)
    {
        return error.what();
    }
    return "(nothing thrown)";
}

} // namespace NuvekTest
