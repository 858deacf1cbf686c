#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "host.h"

namespace fakehost {

namespace {

constexpr std::string_view kPrefix = "<%s%s>%s[%s:%d] ";
constexpr std::string_view kDumpFormat = "dump flexlog:\n%s";
constexpr const char *kTag = "kavel-agent";
constexpr const char *kModuleName = "ADVANCED_DNS";
constexpr std::array<const char *, 5> kLevelTexts{"NONE-", "NOTICE-", "VERBOSE-", "WARNING-", "ERROR-"};

// Formats the message, as every logging service does.
__attribute__((format(printf, 1, 0))) std::string Format(const char *Text, va_list Args)
{
    va_list Measure;
    va_copy(Measure, Args);
    const int Length = std::vsnprintf(nullptr, 0, Text, Measure);
    va_end(Measure);
    std::string Out(Length < 0 ? 0 : static_cast<std::size_t>(Length), '\0');
    static_cast<void>(std::vsnprintf(Out.data(), Out.size() + 1, Text, Args));
    return Out;
}

__attribute__((format(printf, 3, 4))) void WriteFormatted(const char *Tag, uint32_t Level, const char *Text, ...)
{
    va_list Args;
    va_start(Args, Text);
    Host::Current().Log.Write(Tag, Level, Text, Args);
    va_end(Args);
}

void WriteValist(const char * /*Tag*/, uint32_t /*Level*/, const char *Text, va_list /*Args*/)
{
    Host::Current().Violation(std::string("LogValist called with ") + Text);
}

const char *TextOfLevel(uint32_t Level)
{
    return Host::Current().Log.LevelText(Level);
}

const char *FlagText(BOOL Flag)
{
    return Flag == FALSE ? "FALSE" : "TRUE";
}

} // namespace

std::vector<std::string> LogBook::Texts() const
{
    std::vector<std::string> Out;
    for (const LogLine &Each : m_Lines) {
        Out.push_back(std::to_string(Each.Level) + ' ' + Each.Function + ": " + Each.Message);
    }
    return Out;
}

void LogBook::Clear()
{
    m_Lines.clear();
    m_Dumps.clear();
    m_Steps.clear();
}

void LogBook::RequireIdle(const std::string &Caller)
{
    RequireLineWritten();
    if (m_Stage != Stage::Idle) {
        m_Host.Violation("an error of " + m_Function + " was not reset before " + Caller);
        m_Stage = Stage::Idle;
    }
}

void LogBook::Step(const std::string &Text)
{
    if (m_KeepLines) {
        m_Steps.push_back(Text);
    }
}

void LogBook::RequireLineWritten()
{
    if (m_LineDue && !m_LineWritten && CanWrite()) {
        m_Host.Violation("VQ_LogTest let a line of " + m_Function + " through and none was written");
    }
    m_LineDue = false;
}

void LogBook::StartSite(uint32_t Level, bool Enabled, const char *Function)
{
    RequireIdle("VQ_LogTest");
    m_Level = Level;
    m_Function = Function;
    m_LineDue = Enabled;
    m_LineWritten = false;
    m_Message.clear();
    m_Stage = Level == VQ_LOG_LEVEL_ERROR ? Stage::Tested : Stage::Idle;
}

BOOL LogBook::Test(uint32_t Module, uint32_t Level, BOOL Flag, const char *Function)
{
    Step("VQ_LogTest(" + std::to_string(Module) + ", " + std::to_string(Level) + ", " + FlagText(Flag) + ", " +
         Function + ")");
    if (Module != VQ_LOG_MODULE_ADVANCED_DNS || Level < VQ_LOG_LEVEL_NOTICE || Level > VQ_LOG_LEVEL_ERROR) {
        m_Host.Violation("VQ_LogTest with module " + std::to_string(Module) + ", level " + std::to_string(Level));
        return FALSE;
    }
    if (Flag != FALSE) {
        StartSite(Level, LevelEnabled[Level], Function);
        return LevelEnabled[Level] ? TRUE : FALSE;
    }
    if (m_Stage != Stage::Buffered || Level != VQ_LOG_LEVEL_ERROR || m_Function != Function) {
        m_Host.Violation(std::string("VQ_LogTest for a dump out of order, from ") + Function);
    }
    m_Stage = DumpEnabled ? Stage::DumpWanted : Stage::Finishing;
    return DumpEnabled ? TRUE : FALSE;
}

const VQ_LOG_IMPL_ITEM *LogBook::ImplItem(uint32_t Module)
{
    Step("VQ_LogGetImplItem(" + std::to_string(Module) + ")");
    m_Item.Log = HasLog ? WriteFormatted : nullptr;
    m_Item.LogValist = WriteValist;
    m_Item.LogLevel2Str = HasLevelText ? TextOfLevel : nullptr;
    return HasImplItem ? &m_Item : nullptr;
}

const char *LogBook::ModuleName(uint32_t Module)
{
    Step("VQ_LogGetModuleName(" + std::to_string(Module) + ")");
    return kModuleName;
}

const char *LogBook::LevelText(uint32_t Level)
{
    Step("LogLevel2Str(" + std::to_string(Level) + ")");
    return kLevelTexts.at(Level);
}

VQ_ERR_T LogBook::CopyThreadName(char *Buffer, std::size_t Size)
{
    Step("VQ_ThreadGetName(" + std::to_string(Size) + ")");
    if (!HasThreadName) {
        return -EINVAL;
    }
    if (ThreadName.size() >= Size) {
        m_Host.Violation("VQ_ThreadGetName into " + std::to_string(Size) + " bytes");
        return -ERANGE;
    }
    std::memcpy(Buffer, ThreadName.c_str(), ThreadName.size() + 1);
    return 0;
}

const char *LogBook::Tag()
{
    Step("VQ_AgentLogGetTag()");
    return kTag;
}

void LogBook::CheckPrefix(const char *WrittenTag, const LogLine &Line)
{
    const std::string Level = HasLevelText ? kLevelTexts.at(Line.Level) : "";
    const std::string Thread = HasThreadName ? '[' + ThreadName + ']' : "";
    if (std::strcmp(WrittenTag, kTag) != 0 || Line.LevelText != Level || Line.ModuleName != kModuleName ||
        Line.Thread != Thread || Line.Function != m_Function || Line.Level != m_Level || Line.Line <= 0) {
        m_Host.Violation("a line with a wrong tag or prefix, from " + Line.Function + ": " + Line.Message);
    }
}

void LogBook::Write(const char *WrittenTag, uint32_t Level, const char *Text, va_list Args)
{
    if (!std::string_view(Text).starts_with(kPrefix) || Level >= kLevelTexts.size()) {
        m_Host.Violation(std::string("a line whose format lacks the prefix: ") + Text);
        return;
    }
    va_list Rest;
    va_copy(Rest, Args);
    LogLine Line{Level, {}, 0, {}, {}, {}, {}};
    Line.LevelText = va_arg(Rest, const char *);
    Line.ModuleName = va_arg(Rest, const char *);
    Line.Thread = va_arg(Rest, const char *);
    Line.Function = va_arg(Rest, const char *);
    Line.Line = va_arg(Rest, int);
    const char *Message = Text + kPrefix.size();
    const bool IsDump = m_Stage == Stage::DumpWanted && Message == kDumpFormat;
// The part of the format behind the prefix is the message of the module.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    Line.Message = Format(Message, Rest);
#pragma GCC diagnostic pop
    va_end(Rest);
    CheckPrefix(WrittenTag, Line);
    Step("Log(" + std::to_string(Level) + ", " + Line.Function + ", " + Quote(Line.Message) + ")");
    IsDump ? WriteDump(std::move(Line)) : WriteSiteLine(std::move(Line));
}

void LogBook::WriteSiteLine(LogLine Line)
{
    const Stage Wanted = Line.Level == VQ_LOG_LEVEL_ERROR ? Stage::Tested : Stage::Idle;
    if (!m_LineDue || m_LineWritten || m_Stage != Wanted) {
        m_Host.Violation("a line that VQ_LogTest did not let through: " + Line.Message);
    }
    m_LineWritten = true;
    m_LineNumber = Line.Line;
    m_Message = Line.Message;
    m_Host.Calls.Add(EntryKind::Log, "log", Line.Level, Line.Function, Quoted{Line.Message.c_str()});
    if (m_KeepLines) {
        m_Lines.push_back(std::move(Line));
    }
}

void LogBook::WriteDump(LogLine Line)
{
    const bool OtherSite = m_LineWritten && Line.Line != m_LineNumber;
    if (OtherSite || Line.Message != "dump flexlog:\n" + m_Flex) {
        m_Host.Violation("a dump that is not of the error before it: " + Line.Message);
    }
    m_Stage = Stage::Finishing;
    if (m_KeepLines) {
        m_Dumps.push_back(std::move(Line));
    }
}

VQ_ERR_T LogBook::SetFlexText(std::string Text)
{
    Step("VQ_FlexLogSetFormatData(" + Quote(Text) + ")");
    if (m_Stage != Stage::Tested) {
        m_Host.Violation("VQ_FlexLogSetFormatData out of order: " + Text);
    }
    RequireLineWritten();
    if (m_LineWritten && Text != m_Message) {
        m_Host.Violation("the flex-log text differs from the line: " + Text);
    }
    m_Stage = FlexLogWorks ? Stage::Buffered : Stage::Finishing;
    m_Flex = std::move(Text);
    return FlexLogWorks ? 0 : -ENOMEM;
}

char *LogBook::FlexText()
{
    Step("VQ_FlexLogGetFormatBuff()");
    if (m_Stage != Stage::DumpWanted) {
        m_Host.Violation("VQ_FlexLogGetFormatBuff out of order");
    }
    return m_Flex.data();
}

void LogBook::ResetFlexText()
{
    Step("VQ_FlexLogDataReset()");
    const bool DumpMissing = m_Stage == Stage::DumpWanted && CanWrite();
    if (DumpMissing || (m_Stage != Stage::Finishing && m_Stage != Stage::DumpWanted)) {
        m_Host.Violation("VQ_FlexLogDataReset out of order after an error of " + m_Function);
    }
    m_Flex.clear();
    m_Stage = Stage::Idle;
}

} // namespace fakehost

using fakehost::ErrnoKept;
using fakehost::Host;

BOOL VQ_LogTest(uint32_t Module, uint32_t Level, BOOL Flag, const char *Function)
{
    const ErrnoKept Kept;
    return Host::Current().Log.Test(Module, Level, Flag, Function);
}

const VQ_LOG_IMPL_ITEM *VQ_LogGetImplItem(uint32_t Module)
{
    const ErrnoKept Kept;
    return Host::Current().Log.ImplItem(Module);
}

const char *VQ_LogGetModuleName(uint32_t Module)
{
    const ErrnoKept Kept;
    return Host::Current().Log.ModuleName(Module);
}

VQ_ERR_T VQ_ThreadGetName(char *Buffer, size_t Size)
{
    const ErrnoKept Kept;
    return Host::Current().Log.CopyThreadName(Buffer, Size);
}

const char *VQ_AgentLogGetTag(void)
{
    const ErrnoKept Kept;
    return Host::Current().Log.Tag();
}

VQ_ERR_T VQ_FlexLogSetFormatData(const char *Format, ...)
{
    const ErrnoKept Kept;
    va_list Args;
    va_start(Args, Format);
    std::string Text = fakehost::Format(Format, Args);
    va_end(Args);
    return Host::Current().Log.SetFlexText(std::move(Text));
}

char *VQ_FlexLogGetFormatBuff(void)
{
    const ErrnoKept Kept;
    return Host::Current().Log.FlexText();
}

void VQ_FlexLogDataReset(void)
{
    const ErrnoKept Kept;
    Host::Current().Log.ResetFlexText();
}
