// Metrics in the text format of Prometheus.
#ifndef KAVEL_COMMON_METRICS_TEXT_H
#define KAVEL_COMMON_METRICS_TEXT_H

#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kavel {

// How many observations there were up to each bound.
class Histogram {
  public:
    // The bounds rise.
    explicit Histogram(std::vector<double> bounds) : bounds_(std::move(bounds)), counts_(bounds_.size() + 1) {}

    void Observe(double value);

    [[nodiscard]] const std::vector<double> &Bounds() const { return bounds_; }
    // The observations that are not above the bound at `position`; of all, at the number of bounds.
    [[nodiscard]] std::uint64_t CountUpTo(std::size_t position) const;
    [[nodiscard]] double Sum() const { return sum_; }

  private:
    std::vector<double> bounds_;
    std::vector<std::uint64_t> counts_; // of the values between a bound and the one before; the last is above all
    double sum_ = 0;
};

class MetricsText {
  public:
    using Labels = std::vector<std::pair<std::string_view, std::string>>;

    // Begins a metric; its samples follow. `name` has the prefix "kavel_" in the text, and the rules of the format for
    // names are the caller's: a counter ends in "_total". One that has no sample is left out.
    void Begin(std::string_view name, std::string_view type, std::string_view help);

    template <std::unsigned_integral Number>
    void Add(const Labels &labels, Number value)
    {
        AddLine("", labels, std::to_string(value));
    }
    void Add(const Labels &labels, bool value) { AddLine("", labels, value ? "1" : "0"); }
    void Add(const Labels &labels, const Histogram &histogram);

    [[nodiscard]] const std::string &Text() const { return text_; }

  private:
    void AddLine(std::string_view suffix, const Labels &labels, const std::string &value);

    std::string text_;
    std::string name_;
    std::string heading_; // written in front of the first sample
};

} // namespace kavel

#endif
