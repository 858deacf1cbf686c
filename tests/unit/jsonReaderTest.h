// The fixture of all tests of the JSON reader.
#ifndef JSON_READER_TEST_H
#define JSON_READER_TEST_H

#include "moduleTest.h"

class JsonReaderTest : public ModuleTest {
  protected:
    inline static const std::string kTree = "4 _VQCtrl_AdvancedDnsJsonToConf: ";
    inline static const std::string kEntry = "4 VQCtrl_AdvancedDnsJsonStrToConf: ";

    VQ_ERR_T Read(const std::string &Text) { return VQCtrl_AdvancedDnsJsonStrToConf(Conf.get(), Text.c_str()); }

    // The log lines without the dump of the text.
    [[nodiscard]] std::vector<std::string> Lines() const
    {
        std::vector<std::string> Out = Logs();
        std::erase_if(Out, [](const std::string &Line) { return Line[0] == '2'; });
        return Out;
    }

    void ExpectRefused(const std::string &Text, VQ_ERR_T Code, const std::string &Message)
    {
        Host.Log.Clear();
        const std::string Reason = Code == -22 ? "(22:Invalid argument)" : "(75:Value too large for defined data type)";
        EXPECT_EQ(Read(Text), Code) << Text;
        EXPECT_THAT(Lines(),
                    testing::ElementsAre(kTree + Message, kEntry + "Json to data struct failed" + Reason + '\n'))
            << Text;
    }

    // A valid header, followed by the given members.
    [[nodiscard]] static std::string Document(const std::string &Members)
    {
        return R"({"Enable": true, "VpnId": 7, "Op": 1)" + (Members.empty() ? "" : ", " + Members) + '}';
    }

    Record Conf = NewRecord(0);
};

#endif
