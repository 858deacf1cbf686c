#include "config.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <string_view>
#include <system_error>
#include <utility>

#include "endpoint_config.h"
#include "files.h"
#include "json_reader.h"
#include "printable.h"

namespace kavel::fleet {

namespace {

using enum kavel::Presence;
using In = const JsonValue &;

constexpr std::size_t kNameMax = 64;

std::string TextOf(In value)
{
    constexpr std::string_view kExpected = "a text that is not empty";
    const std::string_view text = value.String(kExpected);
    if (text.empty() || text.find('\0') != std::string_view::npos) {
        value.RefuseKind(kExpected);
    }
    return std::string(text);
}

std::string NameOf(In value)
{
    std::string name = TextOf(value);
    if (!IsClientName(name)) {
        value.Refuse(value.Shown() + " cannot be a level of a topic");
    }
    return name;
}

using broker::Endpoint;

constexpr std::array kMembers = {
    JsonMember<Settings>{
        "broker", kRequired,
        [](In value, Settings &settings) { broker::ReadEndpoint(value, kOptional, settings.endpoint); }},
    JsonMember<Settings>{"name", kOptional, [](In value, Settings &settings) { settings.name = NameOf(value); }},
};

Settings ReadSettings(const BrokerOptions &options)
{
    const std::string file = options.config.value_or(kDefaultConfig);
    if (!options.config && !std::filesystem::exists(file)) {
        return {};
    }
    return ctl::WithFileName(ctl::DisplayName(file), [&] { return ParseSettings(ctl::ReadInput(file)); });
}

template <typename Value>
void Override(Value &value, const std::optional<Value> &option)
{
    value = option.value_or(value);
}

void RefuseMissing(const Endpoint &endpoint, const std::string &file)
{
    const std::array<std::pair<std::string_view, const std::string *>, 4> needed = {
        {{"host", &endpoint.host},
         {"ca", &endpoint.ca},
         {"certificate", &endpoint.certificate},
         {"key", &endpoint.key}}};
    for (const auto &[name, value] : needed) {
        if (value->empty()) {
            throw InputError("--" + std::string(name) + ": is missing, and so is broker." + std::string(name) + " in " +
                             file);
        }
    }
}

} // namespace

bool IsClientName(std::string_view name)
{
    return !name.empty() && name.size() <= kNameMax && name.find_first_of("/+#") == std::string_view::npos &&
           name.front() != '$' && Printable(name) == name;
}

std::string CommonNameOf(const std::string &file)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> stream(std::fopen(file.c_str(), "re"), std::fclose);
    if (!stream) {
        throw ctl::FileError(file, "cannot be opened: " + std::generic_category().message(errno));
    }
    const std::unique_ptr<X509, void (*)(X509 *)> certificate(PEM_read_X509(stream.get(), nullptr, nullptr, nullptr),
                                                              X509_free);
    if (!certificate) {
        throw ctl::FileError(file, "holds no certificate in PEM format");
    }
    std::array<char, kNameMax + 1> name{};
    const int length = X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, name.data(),
                                                 static_cast<int>(name.size()));
    std::string text(name.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (!IsClientName(text)) {
        throw ctl::FileError(file, "its common name, \"" + text + "\", cannot be a level of a topic; give --name");
    }
    return text;
}

Settings ParseSettings(const std::string &text)
{
    Settings settings;
    const JsonPtr root = ParseJson(text);
    ReadMembers(JsonValue{root.get(), {}}, kMembers, settings);
    return settings;
}

Settings LoadSettings(const BrokerOptions &options)
{
    Settings settings = ReadSettings(options);
    Override(settings.endpoint.host, options.host);
    Override(settings.endpoint.port, options.port);
    Override(settings.endpoint.ca, options.ca);
    Override(settings.endpoint.certificate, options.certificate);
    Override(settings.endpoint.key, options.key);
    Override(settings.name, options.name);
    RefuseMissing(settings.endpoint, options.config.value_or(kDefaultConfig));
    if (settings.name.empty()) {
        settings.name = CommonNameOf(settings.endpoint.certificate);
    }
    return settings;
}

} // namespace kavel::fleet
