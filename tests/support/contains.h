// Whether one text contains another. A failed test shows both.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>

inline testing::AssertionResult contains(const std::string& text, std::string_view part)
{
    if (text.find(part) != std::string::npos) {
        return testing::AssertionSuccess() << '"' << part << "\" is in:\n" << text;
    }
    return testing::AssertionFailure() << '"' << part << "\" is not in:\n" << text;
}
