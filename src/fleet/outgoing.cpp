#include "outgoing.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <openssl/evp.h>
#include <optional>
#include <string_view>
#include <utility>

#include "files.h"
#include "frame.h"
#include "json_message.h"
#include "packed_conf.h"
#include "topics.h"

namespace kavel::fleet {

namespace {

template <typename Conf>
bool IsForgotten(const Conf &conf)
{
    return conf.enable != 0 && (conf.has_persistentflag == 0 || conf.persistentflag == 0);
}

std::optional<Outgoing> LoadOne(const std::string &file, const std::function<void(const std::string &error)> &report)
{
    const auto encoded = ctl::EncodeJson(ctl::ReadInput(file), ctl::MessageFor::kNamedVpn, report);
    if (!encoded) {
        return std::nullopt;
    }
    if (encoded->bytes.size() > control::kMessageMax) {
        throw InputError("takes " + std::to_string(encoded->bytes.size()) + " bytes as a message, more than " +
                         std::to_string(control::kMessageMax));
    }
    const std::string name = ctl::DisplayName(file);
    if (encoded->isForPop) {
        return Outgoing{name, 0, true, encoded->bytes, IsForgotten(*ctl::UnpackPop({encoded->bytes, true}))};
    }
    const ctl::CpeConf conf = ctl::UnpackCpe({encoded->bytes, false});
    return Outgoing{name, conf->vpnid, false, encoded->bytes, IsForgotten(*conf)};
}

// Why `added` cannot be published with the others; empty: it can.
std::string ConflictText(std::span<const Outgoing> others, const Outgoing &added)
{
    if (const auto same = std::ranges::find(others, added.vpn, &Outgoing::vpn); same != others.end()) {
        return "is for vpn " + std::to_string(added.vpn) + ", as " + same->file + " is";
    }
    if (const auto other = std::ranges::find(others, !added.isForPop, &Outgoing::isForPop); other != others.end()) {
        return std::string("is for a ") + (added.isForPop ? "POP" : "CPE") + ", but " + other->file + " is for a " +
               (added.isForPop ? "CPE" : "POP");
    }
    return "";
}

class Hash {
  public:
    Hash() : context_(EVP_MD_CTX_new(), EVP_MD_CTX_free)
    {
        if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
            throw std::bad_alloc();
        }
    }
    // Its length is part of it, so that two values never look like two others.
    void Add(const void *data, std::size_t size)
    {
        const std::string length = std::to_string(size) + " ";
        EVP_DigestUpdate(context_.get(), length.data(), length.size());
        EVP_DigestUpdate(context_.get(), data, size);
    }
    void Add(std::string_view text) { Add(text.data(), text.size()); }
    [[nodiscard]] std::string Text()
    {
        constexpr std::string_view kDigits = "0123456789abcdef";
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        unsigned int size = 0;
        EVP_DigestFinal_ex(context_.get(), digest.data(), &size);
        std::string text;
        for (unsigned int i = 0; i < size; ++i) {
            text += kDigits[digest.at(i) >> 4U];
            text += kDigits[digest.at(i) & 0xFU];
        }
        return text;
    }

  private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> context_;
};

} // namespace

std::vector<Outgoing> LoadOutgoing(std::span<const std::string> files,
                                   const std::function<void(const std::string &error)> &report)
{
    std::vector<Outgoing> messages;
    for (const std::string &file : files) {
        const auto tell = [&](const std::string &error) { report(ctl::DisplayName(file) + ": " + error); };
        try {
            std::optional<Outgoing> message = LoadOne(file, tell);
            const std::string conflict = message ? ConflictText(messages, *message) : "";
            if (!conflict.empty()) {
                tell(conflict);
            } else if (message) {
                messages.push_back(std::move(*message));
            }
        } catch (const InputError &error) {
            tell(error.what());
        }
    }
    return messages;
}

broker::Message MessageFor(const std::string &box, const Outgoing &outgoing, broker::Revision revision)
{
    return {.topic = broker::TopicText({broker::TopicKind::kDesired, box, outgoing.vpn}),
            .payload = outgoing.bytes,
            .isRetained = true,
            .properties = {{broker::kRevisionProperty, std::to_string(revision)},
                           {broker::kPlatformProperty, outgoing.isForPop ? "pop" : "cpe"}}};
}

std::string ContentHash(std::span<const Outgoing> messages)
{
    Hash hash;
    for (const Outgoing &message : messages) {
        hash.Add(message.isForPop ? "pop" : "cpe");
        hash.Add(message.bytes.data(), message.bytes.size());
    }
    return hash.Text();
}

std::string ListHash(std::span<const std::string> boxes)
{
    Hash hash;
    for (const std::string &box : boxes) {
        hash.Add(box);
    }
    return hash.Text();
}

} // namespace kavel::fleet
