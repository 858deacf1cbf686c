#include "box_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "fleet_samples.h"
#include "input_error.h"

namespace kavel::fleet {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

std::string ListErrorOf(const std::string &text)
{
    try {
        (void)ParseBoxList(text);
    } catch (const InputError &error) {
        return error.what();
    }
    return "";
}

std::string SelectionErrorOf(const BoxSelection &selection)
{
    try {
        (void)SelectedBoxes(selection);
    } catch (const InputError &error) {
        return error.what();
    }
    return "";
}

TEST(BoxList, OneBoxInEachLineInTheirOrder)
{
    EXPECT_THAT(ParseBoxList("branch-2\nbranch-1\n"), ElementsAre("branch-2", "branch-1"));
    EXPECT_THAT(ParseBoxList("b"), ElementsAre("b"));
}

TEST(BoxList, CommentsBlanksAndEmptyLinesCountForNothing)
{
    EXPECT_THAT(ParseBoxList("# all of them\n\n  a \t# the first\r\nb#\n   \n\t#\n"), ElementsAre("a", "b"));
}

TEST(BoxList, EveryBadLineIsNamed)
{
    EXPECT_EQ(ListErrorOf("a\nb c\n\na\n-x\n"), "line 2: \"b c\" is not the name of a box; "
                                                "line 4: \"a\" is in line 1, too; "
                                                "line 5: \"-x\" is not the name of a box");
}

TEST(BoxList, NotMoreThanTenErrorsAreNamed)
{
    std::string text;
    for (int i = 0; i < 13; ++i) {
        text += "+\n";
    }
    const std::string error = ListErrorOf(text);
    EXPECT_THAT(error, HasSubstr("line 10: "));
    EXPECT_THAT(error, Not(HasSubstr("line 11: ")));
    EXPECT_THAT(error, testing::EndsWith("; and 3 more"));
}

TEST(BoxList, WhatIsNoTextIsPrintable)
{
    EXPECT_EQ(ListErrorOf("\x1b[2J\n"), "line 1: \"?[2J\" is not the name of a box");
    EXPECT_THAT(ListErrorOf(std::string(1000, '/')).size(), testing::Lt(200U));
}

TEST(BoxList, AListWithoutABoxIsRefused)
{
    EXPECT_EQ(ListErrorOf(""), "names no box");
    EXPECT_EQ(ListErrorOf("# nothing\n"), "names no box");
}

TEST(BoxSelection, NamedBoxesAreChecked)
{
    EXPECT_THAT(SelectedBoxes({{"a", "b"}, ""}), ElementsAre("a", "b"));
    EXPECT_EQ(SelectionErrorOf({{"a", "b/c"}, ""}), "--box: \"b/c\" is not the name of a box");
    EXPECT_EQ(SelectionErrorOf({{"a", "a"}, ""}), "--box: \"a\" is named twice");
    EXPECT_EQ(SelectionErrorOf({{"a"}, "list"}), "--box: cannot be given with --boxes");
    EXPECT_TRUE(SelectedBoxes({}).empty());
}

TEST(BoxSelection, ErrorsOfAListNameTheFile)
{
    const ScratchDir scratch;
    EXPECT_THAT(SelectedBoxes({{}, scratch.Write("good", "a\n")}), ElementsAre("a"));
    const std::string bad = scratch.Write("bad", "?\n");
    EXPECT_EQ(SelectionErrorOf({{}, bad}), bad + ": line 1: \"?\" is not the name of a box");
    EXPECT_EQ(SelectionErrorOf({{}, scratch.Path("none")}),
              scratch.Path("none") + ": cannot be opened: No such file or directory");
}

} // namespace
} // namespace kavel::fleet
