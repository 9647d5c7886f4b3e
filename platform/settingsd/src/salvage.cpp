#include "salvage.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

namespace settingsd {

namespace {

using nlohmann::json;

/** Follows the parser's events up to the damage, and remembers the values that stand at section level. */
class Salvager : public nlohmann::json_sax<json>
{
public:
    json take() { return std::move(found_); }

    bool null() override { return true; }
    bool boolean(bool value) override { return scalar(value); }
    bool number_integer(number_integer_t value) override { return number(value); }
    bool number_unsigned(number_unsigned_t value) override { return number(value); }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t& value) override { return scalar(value); }
    bool binary(binary_t&) override { return true; }

    bool start_object(std::size_t) override { return open(); }
    bool start_array(std::size_t) override { return open(); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override
    {
        keep_number();
        if (depth_ == kSectionDepth) {
            section_ = name;
        } else if (depth_ == kSettingDepth) {
            setting_ = name;
        }
        return true;
    }

    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override
    {
        return false;
    }

private:
    static constexpr int kSectionDepth = 1;
    static constexpr int kSettingDepth = 2;

    template <typename T>
    bool scalar(const T& value)
    {
        if (depth_ == kSettingDepth && !section_.empty() && !setting_.empty()) {
            found_[section_][setting_] = value;
        }
        return true;
    }

    /** The damage may have cut digits off: a number is whole once something follows it. */
    template <typename T>
    bool number(T value)
    {
        if (depth_ == kSettingDepth) {
            pendingNumber_ = json(value);
        }
        return true;
    }

    void keep_number()
    {
        if (pendingNumber_) {
            scalar(*pendingNumber_);
            pendingNumber_.reset();
        }
    }

    bool open()
    {
        ++depth_;
        setting_.clear();
        return true;
    }

    bool close()
    {
        keep_number();
        --depth_;
        return true;
    }

    json found_ = json::object();
    std::optional<json> pendingNumber_;
    std::string section_;
    std::string setting_;
    int depth_ = 0;
};

} // namespace

json salvage(std::string_view text)
{
    Salvager salvager;
    json::sax_parse(text, &salvager);
    return salvager.take();
}

} // namespace settingsd
