// The logging services. Every line and every flex-log step is checked against the order that a log site must keep. A
// site that breaks the order is a violation, whatever the test itself checks.
#ifndef FAKEHOST_LOG_BOOK_H
#define FAKEHOST_LOG_BOOK_H

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vqLog.h"

namespace fakehost {

class Host;

struct LogLine {
    uint32_t Level;
    std::string Function;
    int Line;
    std::string LevelText;
    std::string ModuleName;
    std::string Thread;
    std::string Message;
};

class LogBook {
  public:
    explicit LogBook(Host &Owner) : m_Host(Owner) {}

    // The answers of the host.
    std::array<bool, 5> LevelEnabled{true, true, true, true, true};
    bool DumpEnabled = true;
    bool HasImplItem = true;
    bool HasLog = true;
    bool HasLevelText = true;
    bool HasThreadName = true;
    bool FlexLogWorks = true;
    std::string ThreadName = "dns-main";

    // The lines in order, without the dumps of the flex-log buffer.
    [[nodiscard]] const std::vector<LogLine> &Lines() const { return m_Lines; }
    [[nodiscard]] const std::vector<LogLine> &Dumps() const { return m_Dumps; }
    // The lines as "level function: message".
    [[nodiscard]] std::vector<std::string> Texts() const;
    // The calls of all logging services, one line each.
    [[nodiscard]] const std::vector<std::string> &Steps() const { return m_Steps; }
    void KeepLines(bool Wanted) { m_KeepLines = Wanted; }
    void Clear();

    // Reports a violation if a log site has not finished its steps.
    void RequireIdle(const std::string &Caller);

    BOOL Test(uint32_t Module, uint32_t Level, BOOL Flag, const char *Function);
    const VQ_LOG_IMPL_ITEM *ImplItem(uint32_t Module);
    const char *ModuleName(uint32_t Module);
    const char *LevelText(uint32_t Level);
    VQ_ERR_T CopyThreadName(char *Buffer, std::size_t Size);
    const char *Tag();
    void Write(const char *WrittenTag, uint32_t Level, const char *Text, va_list Args);
    VQ_ERR_T SetFlexText(std::string Text);
    char *FlexText();
    void ResetFlexText();

  private:
    // The position of an error site between its first test and its reset.
    enum class Stage { Idle, Tested, Buffered, DumpWanted, Finishing };

    void Step(const std::string &Text);
    void StartSite(uint32_t Level, bool Enabled, const char *Function);
    void RequireLineWritten();
    void WriteSiteLine(LogLine Line);
    void WriteDump(LogLine Line);
    void CheckPrefix(const char *WrittenTag, const LogLine &Line);
    [[nodiscard]] bool CanWrite() const { return HasImplItem && HasLog; }

    Host &m_Host;
    bool m_KeepLines = true;
    Stage m_Stage = Stage::Idle;
    uint32_t m_Level = 0;
    std::string m_Function;
    bool m_LineDue = false;
    bool m_LineWritten = false;
    int m_LineNumber = 0;
    std::string m_Message;
    std::string m_Flex;
    VQ_LOG_IMPL_ITEM m_Item{};
    std::vector<LogLine> m_Lines;
    std::vector<LogLine> m_Dumps;
    std::vector<std::string> m_Steps;
};

} // namespace fakehost

#endif
