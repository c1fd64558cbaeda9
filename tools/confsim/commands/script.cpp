// See script.h.
#include "commands/script.h"

#include "failure.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace confsim {

namespace {

constexpr std::size_t most_sources = 64; // inside of each other

std::string first_word(const std::string &line)
{
    constexpr const char *blanks = " \t\r";
    const std::size_t begin = std::min(line.find_first_not_of(blanks), line.size());
    return line.substr(begin, line.find_first_of(blanks, begin) - begin);
}

// What a line does to the number of open blocks.
int opened_by(const std::string &line)
{
    const std::string word = first_word(line);
    return word == "repeat" || word == "case" ? 1 : word == "end" ? -1 : 0;
}

// A position is FILE:LINE.
std::filesystem::path directory_of(const std::string &position)
{
    return std::filesystem::path(position.substr(0, position.rfind(':'))).parent_path();
}

// A block that is carried out several times.
class block final : public input {
public:
    struct line {
        std::string text;
        std::string position;
    };

    block(std::vector<line> lines, long rounds)
        : lines_(std::move(lines)), rounds_(lines_.empty() ? 0 : rounds)
    {
    }

    std::optional<std::string> next_line() override
    {
        if (next_ == lines_.size()) {
            next_ = 0;
            --rounds_;
        }
        if (rounds_ <= 0) {
            return std::nullopt;
        }
        return lines_[next_++].text;
    }
    [[nodiscard]] bool is_script() const override { return true; }
    [[nodiscard]] std::string position() const override { return lines_[next_ - 1].position; }

private:
    std::vector<line> lines_;
    long rounds_;
    std::size_t next_ = 0;
};

} // namespace

script::script(event_loop &loop, std::unique_ptr<input> first) : loop_(loop)
{
    sources_.push_back(std::move(first));
}

std::optional<std::string> script::take()
{
    std::optional<std::string> line = sources_.back()->next_line();
    if (line) {
        position_ = sources_.back()->position();
        last_opened_ = opened_by(*line);
    }
    return line;
}

std::optional<std::string> script::next_line()
{
    for (;;) {
        std::optional<std::string> line = take();
        if (!line) {
            const bool lacks_end = !case_.empty() && case_depth_ == sources_.size();
            if (sources_.size() == 1 || lacks_end || loop_.is_interrupted()) {
                return std::nullopt;
            }
            sources_.pop_back();
            continue;
        }
        skipped_ += skipped_ > 0 ? last_opened_ : 0;
        if (skipped_ == 0) {
            return line;
        }
    }
}

void script::check_depth() const
{
    if (sources_.size() == most_sources) {
        throw failure("too many files and blocks inside of each other");
    }
}

void script::include(const std::string &file)
{
    check_depth();
    sources_.push_back(script_input(loop_, directory_of(position_) / file));
}

void script::repeat(long count)
{
    check_depth();
    const std::string begin = position_;
    std::vector<block::line> lines;
    for (int open = 1;;) {
        std::optional<std::string> line = take();
        if (!line) {
            position_ = begin;
            throw failure("repeat has no end");
        }
        open += last_opened_;
        if (open == 0) {
            break;
        }
        lines.push_back({std::move(*line), position_});
    }
    sources_.push_back(std::make_unique<block>(std::move(lines), count));
}

void script::begin_case(const std::string &name)
{
    if (!case_.empty()) {
        throw failure("a case inside of the case " + case_);
    }
    case_ = name;
    case_depth_ = sources_.size();
}

void script::end_case()
{
    if (case_.empty() || case_depth_ != sources_.size()) {
        throw failure("there is no case or repeat that could end here");
    }
    case_.clear();
}

void script::skip_case()
{
    sources_.resize(case_depth_);
    skipped_ = 1 + std::max(last_opened_, 0);
}

} // namespace confsim
