#include "query_commands.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "commands_fixture.h"
#include "errors.h"

namespace kavel::ctl {
namespace {

class QueryCommandTest : public CommandsTest {
  protected:
    // The agent answers with these texts and what `fill` sets.
    void AnswerQuery(std::vector<std::string> answers, std::vector<std::string> way,
                     const std::function<void(Kavel__QueryAnswer &)> &fill = {})
    {
        Kavel__QueryAnswer query{};
        kavel__query_answer__init(&query);
        std::vector<char *> records;
        std::vector<char *> steps;
        for (std::string &text : answers) {
            records.push_back(text.data());
        }
        for (std::string &text : way) {
            steps.push_back(text.data());
        }
        query.n_answers = records.size();
        query.answers = records.data();
        query.n_way = steps.size();
        query.way = steps.data();
        query.milliseconds = 12;
        if (fill) {
            fill(query);
        }
        Answer({PackReply(0, [&](Kavel__Reply &reply) { reply.query = &query; })});
    }

    int GoQuery(const QueriedName &queried)
    {
        out_.str("");
        err_.str("");
        return Go([&] { return Query(session_, queried); });
    }
};

TEST_F(QueryCommandTest, PrintsTheAnswerAndTheWay)
{
    AnswerQuery({"a.example A 192.0.2.1", "a.example A 192.0.2.2"}, {"hosts, line 1\x1b", "second step"});
    EXPECT_EQ(GoQuery({7, "a.example"}), kDone);
    EXPECT_EQ(out_.str(), "a.example A 192.0.2.1\na.example A 192.0.2.2\nway: hosts, line 1?\nway: second step\n"
                          "time: 12 ms\n");
    EXPECT_EQ(err_.str(), "");
    const RequestPtr request = Request(0);
    EXPECT_EQ(request->verb, KAVEL__REQUEST__VERB__QUERY);
    EXPECT_EQ(request->vpn, 7U);
    EXPECT_STREQ(request->name, "a.example");
    EXPECT_EQ(request->type, 1U);
}

TEST_F(QueryCommandTest, SaysWhatTheRunningInstanceDoesOtherwise)
{
    std::string differs = "the running instance does not answer";
    AnswerQuery({"a A 192.0.2.1"}, {}, [&](Kavel__QueryAnswer &query) { query.differs = differs.data(); });
    EXPECT_EQ(GoQuery({7, "a"}), kDone);
    EXPECT_EQ(out_.str(), "a A 192.0.2.1\ntime: 12 ms\ndiffers: the running instance does not answer\n");
}

TEST_F(QueryCommandTest, SaysWhyThereIsNoAnswer)
{
    const std::vector<std::pair<std::uint32_t, std::string>> cases = {
        {0, "no such record (NOERROR)"},   {2, "a server failed (SERVFAIL)"}, {3, "no such name (NXDOMAIN)"},
        {5, "a server refused (REFUSED)"}, {9, "no answer (RCODE9)"},
    };
    for (const auto &[rcode, text] : cases) {
        AnswerQuery({}, {}, [rcode = rcode](Kavel__QueryAnswer &query) { query.rcode = rcode; });
        EXPECT_EQ(GoQuery({7, "a.example", "MX"}), kRefused) << text;
        EXPECT_EQ(out_.str(), "a.example MX: " + text + "\ntime: 12 ms\n");
    }
    std::string problem = "no answer within 5 s";
    AnswerQuery({}, {"forwarded to 192.0.2.53"}, [&](Kavel__QueryAnswer &query) { query.problem = problem.data(); });
    EXPECT_EQ(GoQuery({7, "a.example"}), kRefused);
    EXPECT_EQ(out_.str(), "a.example A: no answer within 5 s\nway: forwarded to 192.0.2.53\ntime: 12 ms\n");
}

TEST_F(QueryCommandTest, AnAliasOfANameThatDoesNotExistIsNoAnswer)
{
    AnswerQuery({"a.example CNAME b.example"}, {}, [](Kavel__QueryAnswer &query) { query.rcode = 3; });
    EXPECT_EQ(GoQuery({7, "a.example"}), kRefused);
    EXPECT_EQ(out_.str(), "a.example CNAME b.example\na.example A: no such name (NXDOMAIN)\ntime: 12 ms\n");
}

TEST_F(QueryCommandTest, TurnsAddressesRoundForPtr)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"192.0.2.10", "10.2.0.192.in-addr.arpa"},
        {"2001:db8::a", "a.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.b.d.0.1.0.0.2.ip6.arpa"},
        {"10.2.0.192.in-addr.arpa", "10.2.0.192.in-addr.arpa"},
    };
    for (const auto &[name, asked] : cases) {
        AnswerQuery({"x"}, {});
        EXPECT_EQ(GoQuery({0, name, "ptr"}), kDone);
        EXPECT_EQ(Request(0)->name, asked);
        EXPECT_EQ(Request(0)->type, 12U);
    }
    AnswerQuery({"x"}, {});
    EXPECT_EQ(GoQuery({0, "192.0.2.10", "TYPE65"}), kDone);
    EXPECT_STREQ(Request(0)->name, "192.0.2.10");
    EXPECT_EQ(Request(0)->type, 65U);
}

TEST_F(QueryCommandTest, PrintsJson)
{
    session_.json = true;
    AnswerQuery({"a.example A 192.0.2.1"}, {"step"});
    EXPECT_EQ(GoQuery({7, "a.example"}), kDone);
    EXPECT_EQ(out_.str(), R"json({
  "schema": 1,
  "vpn": 7,
  "name": "a.example",
  "type": "A",
  "answers": [
    "a.example A 192.0.2.1"
  ],
  "rcode": "NOERROR",
  "way": [
    "step"
  ],
  "milliseconds": 12
}
)json");
    std::string differs = "it does not answer";
    AnswerQuery({}, {}, [&](Kavel__QueryAnswer &query) {
        query.rcode = 3;
        query.differs = differs.data();
    });
    EXPECT_EQ(GoQuery({7, "a.example"}), kRefused);
    EXPECT_EQ(out_.str(), R"json({
  "schema": 1,
  "vpn": 7,
  "name": "a.example",
  "type": "A",
  "answers": [
  ],
  "rcode": "NXDOMAIN",
  "problem": "no such name (NXDOMAIN)",
  "way": [
  ],
  "milliseconds": 12,
  "differs": "it does not answer"
}
)json");
}

TEST_F(QueryCommandTest, RefusesAnUnknownType)
{
    for (const char *type : {"", "B", "TYPE0", "TYPE65536"}) {
        EXPECT_EQ(GoQuery({7, "a.example", type}), kBadInput);
        EXPECT_EQ(err_.str(),
                  std::string("vqctl: \"") + type + "\" is not a type of records, such as A, AAAA, MX or TYPE65\n");
    }
}

TEST_F(QueryCommandTest, ReportsARefusalAndAnEmptyReply)
{
    Answer({ReplyFor(9, -2, "", "vpn 9 is not configured")});
    EXPECT_EQ(GoQuery({9, "a.example"}), kRefused);
    EXPECT_EQ(err_.str(), "vqctl: vpn 9: refused (-2 No such file or directory): vpn 9 is not configured\n");
    Answer({PackReply(0)});
    EXPECT_EQ(GoQuery({7, "a.example"}), kNoAgent);
    EXPECT_EQ(err_.str(), "vqctl: the agent's reply says nothing about the query\n");
}

} // namespace
} // namespace kavel::ctl
