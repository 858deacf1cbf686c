// The module's work, each piece beside its floor.
#ifndef BENCH_MODULE_WORKS_H
#define BENCH_MODULE_WORKS_H

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "module_content.h"

namespace kavel::bench {

struct Work {
    std::string name;
    std::size_t n;
    std::string floorName;
    std::optional<double> target;
    std::function<void()> ours;
    std::function<void()> floor;
};

class Works {
  public:
    // Throws when a floor does not do the same work.
    Works();
    Works(const Works &) = delete;
    Works &operator=(const Works &) = delete;

    // Each at full size: its memory is worth counting.
    std::deque<Work> full;
    // The same over sizes.
    std::deque<Work> growing;

  private:
    // The content of that size: made once, which takes seconds at full size.
    const Content &ContentOf(const Amount &amount);
    void AddTranslations();
    void AddTranslation(std::deque<Work> &works, const std::string &name, std::size_t n, const Amount &amount,
                        std::optional<double> target);
    void AddFiles();
    void AddFile(const std::string &name, std::size_t capacity, VQ_ERR_T (*ours)(const VQ_CTRL_DNSMASQ_CONF *),
                 void (*floor)(const VQ_CTRL_DNSMASQ_CONF &));
    void AddDocument(std::deque<Work> &works, const Amount &amount, std::optional<double> target);
    void AddDocuments();
    void AddMessage(std::deque<Work> &works, const std::string &name, std::size_t n, const Amount &amount,
                    std::optional<double> target);
    void AddMessages();

    std::map<Amount, Content> contents_;
    std::deque<RecordOwner> records_;
    // What translations and readings fill, over and over: that it is zeroed before is their caller's work.
    RecordOwner target_ = RecordOf(0);
};

} // namespace kavel::bench

#endif
