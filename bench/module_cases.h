// The measured work of the module, each piece with its floor.
#ifndef BENCH_MODULE_CASES_H
#define BENCH_MODULE_CASES_H

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "module_content.h"

namespace kavel::bench {

struct Case {
    std::string name;
    std::size_t n;
    std::string floorName;
    std::optional<double> target;
    std::function<void()> ours;
    std::function<void()> floor;
};

class Cases {
  public:
    // Throws std::runtime_error if a floor does not do the same work.
    Cases();
    Cases(const Cases &) = delete;
    Cases &operator=(const Cases &) = delete;

    // Each at full size. Their memory operations are counted, too.
    std::deque<Case> full;
    // The same work at several sizes.
    std::deque<Case> growing;

  private:
    // The content of that size. It is made once, because that takes seconds at full size.
    const Content &ContentOf(const Amount &amount);
    void AddTranslations();
    void AddTranslation(std::deque<Case> &cases, const std::string &name, std::size_t n, const Amount &amount,
                        std::optional<double> target);
    void AddFiles();
    void AddFile(const std::string &name, std::size_t capacity, VQ_ERR_T (*ours)(const VQ_CTRL_DNSMASQ_CONF *),
                 void (*floor)(const VQ_CTRL_DNSMASQ_CONF &));
    void AddDocument(std::deque<Case> &cases, const Amount &amount, std::optional<double> target);
    void AddDocuments();
    void AddMessage(std::deque<Case> &cases, const std::string &name, std::size_t n, const Amount &amount,
                    std::optional<double> target);
    void AddMessages();

    std::map<Amount, Content> contents_;
    std::deque<RecordOwner> records_;
    // The record that translations and conversions from text fill. They do not zero it: that is the work of their
    // caller.
    RecordOwner target_ = RecordOf(0);
};

} // namespace kavel::bench

#endif
