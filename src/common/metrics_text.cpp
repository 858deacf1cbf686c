#include "metrics_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <numeric>

namespace kavel {
namespace {

// The shortest text that reads as the same number.
std::string NumberText(double number)
{
    std::array<char, 32> text{};
    const char *const end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    return {text.data(), static_cast<std::size_t>(end - text.data())};
}

// Backslashes and line feeds in a help text, and quotes, too, in the value of a label.
std::string Escaped(std::string_view text, bool isLabel)
{
    std::string escaped;
    for (const char letter : text) {
        if (letter == '\n') {
            escaped += "\\n";
            continue;
        }
        if (letter == '\\' || (letter == '"' && isLabel)) {
            escaped += '\\';
        }
        escaped += letter;
    }
    return escaped;
}

} // namespace

void Histogram::Observe(double value)
{
    const auto bound = std::ranges::lower_bound(bounds_, value);
    ++counts_[static_cast<std::size_t>(std::distance(bounds_.begin(), bound))];
    sum_ += value;
}

std::uint64_t Histogram::CountUpTo(std::size_t position) const
{
    const auto end = counts_.begin() + static_cast<std::ptrdiff_t>(position) + 1;
    return std::accumulate(counts_.begin(), end, std::uint64_t{0});
}

void MetricsText::Begin(std::string_view name, std::string_view type, std::string_view help)
{
    name_ = "kavel_" + std::string(name);
    heading_ = "# HELP " + name_ + " " + Escaped(help, false) + "\n# TYPE " + name_ + " " + std::string(type) + "\n";
}

void MetricsText::AddLine(std::string_view suffix, const Labels &labels, const std::string &value)
{
    text_ += std::exchange(heading_, "");
    text_.append(name_).append(suffix);
    char separator = '{';
    for (const auto &[label, content] : labels) {
        (text_ += std::exchange(separator, ',')).append(label).append("=\"").append(Escaped(content, true)) += '"';
    }
    text_.append(labels.empty() ? " " : "} ").append(value) += '\n';
}

void MetricsText::Add(const Labels &labels, const Histogram &histogram)
{
    const std::vector<double> &bounds = histogram.Bounds();
    for (std::size_t position = 0; position <= bounds.size(); ++position) {
        Labels bucket = labels;
        bucket.emplace_back("le", position < bounds.size() ? NumberText(bounds[position]) : "+Inf");
        AddLine("_bucket", bucket, std::to_string(histogram.CountUpTo(position)));
    }
    AddLine("_sum", labels, NumberText(histogram.Sum()));
    AddLine("_count", labels, std::to_string(histogram.CountUpTo(bounds.size())));
}

} // namespace kavel
