#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "fleet_samples.h"
#include "watch_command.h"

namespace kavel::fleet {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ShownRowsTest : public testing::Test {
  protected:
    std::vector<std::string> Take(const broker::Message &message)
    {
        const std::string box = state_.Take(message).value();
        return shown_.Update(box, state_.Find(box));
    }

    FleetState state_;
    ShownRows shown_{false};
};

TEST_F(ShownRowsTest, ALineForEachChange)
{
    EXPECT_THAT(Take(Online("b")), IsEmpty());
    EXPECT_THAT(Take(Wanted("b", 7, "1")),
                ElementsAre("b vpn 7: not reported yet (online: yes, wanted: 1, in force: -)"));
    EXPECT_THAT(Take(Wanted("b", 7, "1")), IsEmpty());
    EXPECT_THAT(Take(Offline("b")), ElementsAre("b vpn 7: offline (online: no, wanted: 1, in force: -)"));
}

TEST_F(ShownRowsTest, AVpnThatIsAsWantedAgainIsTold)
{
    Take(Wanted("b", 7, "1"));
    EXPECT_THAT(Take(Applied("b", 7, 1)), ElementsAre("b vpn 7: applied (online: no, wanted: 1, in force: 1)"));
    EXPECT_THAT(Take(Online("b")), IsEmpty());
}

TEST_F(ShownRowsTest, ABoxThatIsGoneIsTold)
{
    broker::Message wanted = Wanted("b", 7, "1");
    Take(wanted);
    wanted.payload.clear();
    EXPECT_THAT(Take(wanted), ElementsAre("b vpn 7: gone"));
}

TEST_F(ShownRowsTest, AfterANewConnectionOnlyWhatIsDifferent)
{
    Take(Wanted("a", 7, "1"));
    Take(Wanted("b", 7, "1"));
    Take(Wanted("c", 7, "1"));
    FleetState now;
    now.Take(Wanted("a", 7, "1"));
    now.Take(Wanted("b", 7, "2"));
    EXPECT_THAT(shown_.UpdateAll(now),
                ElementsAre("c vpn 7: gone", "b vpn 7: offline (online: no, wanted: 2, in force: -)"));
    EXPECT_THAT(shown_.UpdateAll(now), IsEmpty());
}

} // namespace
} // namespace kavel::fleet
