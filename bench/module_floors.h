// The least that each piece of the module's work can cost: what its rules force, done bare.
#ifndef BENCH_MODULE_FLOORS_H
#define BENCH_MODULE_FLOORS_H

#include <span>
#include <string>

#include "module_content.h"

namespace kavel::bench {

// Every name against a pattern of its own, compiled for it and freed behind it.
void matchNames(std::span<const std::string> names);

// The servers' interface names, which no rule makes anybody check.
void copyServers(const Content &content, VQ_CTRL_DNSMASQ_CONF *target);

// The lines of one file, each formatted once into a zeroed buffer of the prescribed size, and written.
void writeHostLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void writeMxLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void writeServerLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void writeResolvLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void writeProxyLines(const VQ_CTRL_DNSMASQ_CONF &conf);

// The stored document built, printed and freed. With `printed` the text is kept.
enum class Addresses { AreTexts, AreFormatted }; // there already, or by the host's service
void printDocument(const Content &content, Addresses addresses, std::string *printed);
// Parsed and freed; before that, in the second case, every member is looked up and put where it belongs.
void parseDocument(const std::string &text);
void takeDocument(const std::string &text, VQ_CTRL_DNSMASQ_CONF *target);

// A record taken, zeroed and given back.
void clearRecord();
// One call for each server of the record, on one description.
void addRoutes(const VQ_CTRL_DNSMASQ_CONF &conf);
// All of a message's parts.
void carryMessage(const Content &content);

} // namespace kavel::bench

#endif
