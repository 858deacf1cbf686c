// The floors: the least that each piece of the module's work can cost. They do what the work requires and nothing else.
#ifndef BENCH_MODULE_FLOORS_H
#define BENCH_MODULE_FLOORS_H

#include <span>
#include <string>

#include "module_content.h"

namespace kavel::bench {

// Compiles a pattern for each name, matches the name and frees the pattern.
void MatchNames(std::span<const std::string> names);

// Copies the interface names of the servers, which need no check.
void CopyServers(const Content &content, VQ_CTRL_DNSMASQ_CONF *target);

// Formats the lines of one file, each once, into a zeroed buffer of the required size, and writes the file.
void WriteHostLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteMxLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteServerLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteResolvLines(const VQ_CTRL_DNSMASQ_CONF &conf);
void WriteProxyLines(const VQ_CTRL_DNSMASQ_CONF &conf);

// Builds, prints and frees the stored document. If `printed` is not null, it receives the text.
enum class Addresses { kAreTexts, kAreFormatted }; // prepared before, or formatted by the host's service
void PrintDocument(const Content &content, Addresses addresses, std::string *printed);
// ParseDocument parses and frees the document. ReadDocument also looks up every member and copies it to the record.
void ParseDocument(const std::string &text);
void ReadDocument(const std::string &text, VQ_CTRL_DNSMASQ_CONF *target);

// Allocates, zeroes and frees a record.
void ClearRecord();
// Calls the route service once for each server of the record, with the same description.
void AddRoutes(const VQ_CTRL_DNSMASQ_CONF &conf);
// All parts of a message.
void DoMessageParts(const Content &content);

} // namespace kavel::bench

#endif
