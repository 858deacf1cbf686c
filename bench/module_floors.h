// The least that each piece of the module's work can cost: what its rules force, done bare.
#ifndef BENCH_MODULE_FLOORS_H
#define BENCH_MODULE_FLOORS_H

#include <span>
#include <string>

#include "module_content.h"

namespace kavel::bench {

// Every name against a pattern of its own, compiled for it and freed behind it.
void MatchNames(std::span<const std::string> names);

// The servers' interface names, which no rule makes anybody check.
void CopyServers(const Content &content, VQ_CTRL_DNSMASQ_CONF *target);

// The lines of one file, each formatted once into a zeroed buffer of the prescribed size, and written.
void WriteHostLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteMxLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteServerLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteResolvLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteProxyLines(const VQ_CTRL_DNSMASQ_CONF &conf);

// The stored document built, printed and freed. With `printed` the text is kept.
enum class Addresses { kAreTexts, kAreFormatted }; // there already, or by the host's service
void PrintDocument(const Content &content, Addresses addresses, std::string *printed);
// Parsed and freed; before that, in the second case, every member is looked up and put where it belongs.
void ParseDocument(const std::string &text);
void TakeDocument(const std::string &text, VQ_CTRL_DNSMASQ_CONF *target);

// A record taken, zeroed and given back.
void ClearRecord();
// One call for each server of the record, on one description.
void AddRoutes(const VQ_CTRL_DNSMASQ_CONF &conf);
// All of a message's parts.
void CarryMessage(const Content &content);

} // namespace kavel::bench

#endif
