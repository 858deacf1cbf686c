#include "revision.h"

#include <gtest/gtest.h>

#include <string_view>

namespace kavel::broker {
namespace {

TEST(ParseRevision, ReadsDecimalNumbers)
{
    EXPECT_EQ(ParseRevision("1"), 1U);
    EXPECT_EQ(ParseRevision("10"), 10U);
    EXPECT_EQ(ParseRevision("9223372036854775807"), kRevisionMax);
}

TEST(ParseRevision, RefusesEverythingElse)
{
    for (const std::string_view text :
         {"", "0", "01", "-1", "+1", " 1", "1 ", "1.0", "1e3", "0x1", "a", "9223372036854775808",
          "18446744073709551616", "18446744073709551617", "\xD9\xA1"}) {
        EXPECT_EQ(ParseRevision(text), std::nullopt) << text;
    }
    EXPECT_EQ(ParseRevision(std::string_view("1\0", 2)), std::nullopt);
}

} // namespace
} // namespace kavel::broker
