#include "services/own_questions.h"

#include <gtest/gtest.h>

#include <fstream>
#include <ios>
#include <string>

#include "test_box.h"

namespace kavel::agent {
namespace {

class OwnQuestionsTest : public testing::Test {
  protected:
    TempDir dir_;
    const std::string path_ = dir_.Path() + "/questions";
    OwnQuestions questions_{path_};
};

TEST_F(OwnQuestionsTest, AreCountedForEachVpn)
{
    (void)questions_.Add(7);
    (void)questions_.Add(7);
    (void)questions_.Add(0);
    EXPECT_EQ(questions_.CountOf(7), 2U);
    EXPECT_EQ(questions_.CountOf(0), 1U);
    EXPECT_EQ(questions_.CountOf(8), 0U);
}

TEST_F(OwnQuestionsTest, AQuestionThatReachedNobodyIsWithdrawn)
{
    const auto first = questions_.Add(7);
    (void)questions_.Add(7);
    questions_.Withdraw(first);
    EXPECT_EQ(questions_.CountOf(7), 1U);
}

TEST_F(OwnQuestionsTest, ALaunchBeginsWithNone)
{
    questions_.SetProcess(7, 100, 1);
    const auto before = questions_.Add(7);
    questions_.BeginLaunch(7);
    EXPECT_EQ(questions_.CountOf(7), 0U);
    (void)questions_.Add(7);
    questions_.Withdraw(before);
    EXPECT_EQ(questions_.CountOf(7), 1U) << "the withdrawn one was for the process before";
}

TEST_F(OwnQuestionsTest, WhatALaunchedProcessGotBeforeItIsKnownCounts)
{
    questions_.BeginLaunch(7);
    (void)questions_.Add(7);
    questions_.SetProcess(7, 100, 1);
    EXPECT_EQ(questions_.CountOf(7), 1U);
}

TEST_F(OwnQuestionsTest, AnotherProcessBeginsWithNone)
{
    questions_.SetProcess(7, 100, 1);
    (void)questions_.Add(7);
    questions_.SetProcess(7, 100, 1);
    EXPECT_EQ(questions_.CountOf(7), 1U) << "it is the same";
    questions_.SetProcess(7, 100, 2);
    EXPECT_EQ(questions_.CountOf(7), 0U) << "its pid was given to another one";
    (void)questions_.Add(7);
    questions_.SetProcess(7, 101, 2);
    EXPECT_EQ(questions_.CountOf(7), 0U);
}

TEST_F(OwnQuestionsTest, AnAgentKnowsThoseOfTheAgentBefore)
{
    questions_.SetProcess(8, 100, 1);
    questions_.SetProcess(7, 101, 2);
    (void)questions_.Add(7);
    (void)questions_.Add(8);
    (void)questions_.Add(8);

    OwnQuestions next(path_);
    EXPECT_EQ(next.CountOf(7), 1U);
    EXPECT_EQ(next.CountOf(8), 2U);
    next.SetProcess(7, 101, 2);
    next.SetProcess(8, 100, 3);
    EXPECT_EQ(next.CountOf(7), 1U);
    EXPECT_EQ(next.CountOf(8), 0U);

    EXPECT_EQ(OwnQuestions(path_).CountOf(7), 1U);
    EXPECT_EQ(OwnQuestions(path_).CountOf(8), 0U);
}

TEST_F(OwnQuestionsTest, AreCountedWithoutAFile)
{
    OwnQuestions questions(dir_.Path() + "/missing/questions");
    (void)questions.Add(7);
    EXPECT_EQ(questions.CountOf(7), 1U);
}

TEST_F(OwnQuestionsTest, AFileThatEndsInTheMiddleIsReadAsFarAsItGoes)
{
    (void)questions_.Add(7);
    (void)questions_.Add(8);
    std::string content = ReadText(path_);
    content.pop_back();
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
    const OwnQuestions next(path_);
    EXPECT_EQ(next.CountOf(7), 1U);
    EXPECT_EQ(next.CountOf(8), 0U);
}

} // namespace
} // namespace kavel::agent
