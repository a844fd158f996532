#include "HalvoShared/C/HalvoRecords.h"

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <expected>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "HalvoPlatform/Files.hpp"
#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/LaunchReason.hpp"
#include "HalvoShared/SharedFile.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo {
namespace {

using Words = std::array<std::uint64_t, 2>;

// What a reply owns.
struct FlatWriter {
    template <class T>
    void put(const T& value) {
        if constexpr (std::integral<T> || std::is_enum_v<T>) {
            words.push_back(static_cast<std::uint64_t>(value));
        } else if constexpr (std::same_as<T, WallDate>) {
            words.push_back(std::bit_cast<std::uint64_t>(secondsSince1970(value)));
        } else if constexpr (std::convertible_to<const T&, std::string_view>) {
            const std::string_view text = value;
            words.push_back(text.size());
            bytes += text;
        } else if constexpr (std::same_as<T, UUID>) {
            const auto both = std::bit_cast<Words>(value.bytes);
            words.insert(words.end(), both.begin(), both.end());
        } else if constexpr (requires { value.has_value(); }) {
            words.push_back(value.has_value() ? 1 : 0);
            if (value) {
                put(*value);
            }
        } else if constexpr (requires { value.valueless_by_exception(); }) {
            words.push_back(value.index());
            std::visit([&](const auto& chosen) { put(chosen); }, value);
        } else if constexpr (std::ranges::range<T>) {
            words.push_back(value.size());
            std::ranges::for_each(value, [&](const auto& element) { put(element); });
        } else if constexpr (!std::is_empty_v<T>) {
            std::apply([&](const auto&... member) { (put(member), ...); }, value.members());
        }
    }

    std::vector<std::uint64_t> words;
    std::string bytes;
};

[[noreturn]] void failWith(JSON::Error error) {
    throw error;  // NOLINT(cert-err60-cpp): caught as a reference, never copied by a throw.
}

// Reads what a caller has written, who may be wrong. Throws JSON::Error.
class FlatReader {
  public:
    explicit FlatReader(HalvoValues values)
        : words_(values.words, values.wordCount),
          bytes_(static_cast<const char*>(values.bytes), values.byteCount) {}

    template <class T>
    void get(T& value) {
        if constexpr (std::same_as<T, bool>) {
            value = numberUpTo(1) == 1;
        } else if constexpr (std::integral<T>) {
            const std::uint64_t number = word();
            value = static_cast<T>(number);
            expect(static_cast<std::uint64_t>(value) == number);
        } else if constexpr (std::is_enum_v<T>) {
            constexpr auto last = std::ranges::count(JSON::names<T>, ',');
            value = static_cast<T>(numberUpTo(last));
        } else if constexpr (std::same_as<T, WallDate> || std::same_as<T, Seconds>) {
            value = T{Seconds{std::bit_cast<double>(word())}};
        } else if constexpr (std::convertible_to<T, std::string_view>) {
            value = bytes_.substr(0, numberUpTo(bytes_.size()));
            bytes_.remove_prefix(value.size());
        } else if constexpr (std::same_as<T, UUID>) {
            const std::uint64_t first = word();
            value.bytes = std::bit_cast<decltype(value.bytes)>(Words{first, word()});
        } else if constexpr (requires { value.has_value(); }) {
            if (numberUpTo(1) == 1) {
                get(value.emplace());
            }
        } else if constexpr (requires { value.valueless_by_exception(); }) {
            getCase(value);
        } else if constexpr (std::ranges::range<T>) {
            // Each element has a word at least.
            value.resize(numberUpTo(words_.size()));
            std::ranges::for_each(value, [&](auto& element) { get(element); });
        } else if constexpr (!std::is_empty_v<T>) {
            std::apply([&](auto&... member) { (get(member), ...); }, value.members());
        }
    }

    template <class... Cases>
    void getCase(std::variant<Cases...>& variant) {
        std::size_t index = numberUpTo(sizeof...(Cases) - 1);
        ((index-- == 0 ? get(variant.template emplace<Cases>()) : void()), ...);
    }

    void expectEnd() const { expect(words_.empty() && bytes_.empty()); }

  private:
    static void expect(bool isRight) {
        if (!isRight) {
            failWith({"", "The arguments are not those of the function"});
        }
    }

    std::uint64_t word() {
        expect(!words_.empty());
        const std::uint64_t first = words_.front();
        words_ = words_.subspan(1);
        return first;
    }

    std::uint64_t numberUpTo(std::uint64_t last) {
        const std::uint64_t number = word();
        expect(number <= last);
        return number;
    }

    // What is left.
    std::span<const std::uint64_t> words_;
    std::string_view bytes_;
};

template <class... Values>
HalvoReply replyOf(bool isFailure, const Values&... values) {
    auto flat = std::make_unique<FlatWriter>();
    (flat->put(values), ...);
    const HalvoValues borrowed{flat->words.data(), flat->words.size(), flat->bytes.data(),
                               flat->bytes.size()};
    return {borrowed, isFailure, flat.release()};
}

// Allocates nothing.
HalvoReply noMemory() {
    static constexpr const char* problem = "There is not enough memory";
    static constexpr Words sizes{0, std::char_traits<char>::length(problem)};
    return {{sizes.data(), sizes.size(), problem, sizes[1]}, true, nullptr};
}

// The reply of `function` to arguments of the types that the last parameter has.
template <class Function, class Result, class... Arguments>
HalvoReply call(HalvoValues values, Function function, Result (*)(Arguments...)) noexcept {
    try {
        try {
            FlatReader reader(values);
            // NOLINTNEXTLINE(misc-const-correctness): of functions that have some.
            std::tuple<std::decay_t<Arguments>...> arguments;
            std::apply([&](auto&... argument) { (reader.get(argument), ...); }, arguments);
            reader.expectEnd();
            return replyOf(false, std::apply(function, arguments));
        } catch (const JSON::Error& error) {
            return replyOf(true, error.path, error.problem);
        }
    } catch (...) {
        // The functions throw nothing else.
        return noMemory();
    }
}

template <class Result, class... Arguments>
HalvoReply call(HalvoValues values, Result (*function)(Arguments...)) noexcept {
    return call(values, function, function);
}

template <class Result, class Owner, class... Arguments>
HalvoReply call(HalvoValues values, Result (Owner::*function)(Arguments...) const) noexcept {
    using Plain = Result (*)(const Owner&, Arguments...);
    return call(values, function, Plain());
}

template <class T>
T valueOf(std::expected<T, JSON::Error> result) {
    if (!result) {
        failWith(std::move(result.error()));
    }
    return *std::move(result);
}

template <class T>
T recordOf(std::string_view json) {
    return valueOf(JSON::decode<T>(json));
}

template <class T>
std::string jsonOf(const T& record) {
    return valueOf(JSON::encode(record));
}

template <class T>
std::string fileOf() {
    return T::file().url();
}

GregorianCalendar calendarOf(const std::string& zone) {
    auto calendar = GregorianCalendar::named(zone);
    if (!calendar) {
        failWith({"", std::move(calendar.error())});
    }
    return *calendar;
}

std::vector<WidgetMoment> momentsAt(const WidgetSnapshot& snapshot,
                                    const std::vector<WallDate>& dates, const std::string& zone) {
    const GregorianCalendar calendar = calendarOf(zone);
    std::vector<WidgetMoment> moments;
    moments.reserve(dates.size());
    for (const WallDate date : dates) {
        moments.push_back(snapshot.moment(date, calendar));
    }
    return moments;
}

std::vector<WallDate> timelineDates(const WidgetSnapshot& snapshot, WallDate from,
                                    const std::string& zone, Seconds span, std::size_t limit) {
    return snapshot.timelineDates(from, calendarOf(zone), span, limit);
}

std::optional<WidgetSnapshot::Running> countdownOf(const WidgetSnapshot::State& state) {
    const auto* running = WidgetSnapshot::countdown(state);
    return running == nullptr ? std::nullopt : std::optional(*running);
}

auto kinds() {
    using Kind = WidgetSnapshot::Kind;
    return std::array{Kind::status, Kind::breathe, Kind::breatheControl, Kind::focusControl};
}

std::vector<std::string_view> launchArguments() {
    std::vector<std::string_view> all{LaunchReason::relaunchArgument};
    std::ranges::copy(LaunchReason::afterQuitArguments, std::back_inserter(all));
    return all;
}

HalvoLink::Screen screenOf(std::string_view url) { return HalvoLink::reading(url).screen; }

std::string urlOf(const HalvoLink::Screen& screen, const std::string& scheme) {
    return HalvoLink{screen}.url(scheme);
}

// Fails with the text about the file at `path`, which begins with that.
[[noreturn]] void failAbout(const std::string& path, const std::string& text) {
    failWith({path, text.substr(path.size() + 2)});
}

std::string contentOf(const std::string& path) {
    auto content = readFile(path, shared_file::sizeLimit);
    if (!content) {
        failAbout(path, content.error().message);
    }
    return *std::move(content);
}

std::tuple<> storeFile(const std::string& path, std::string_view bytes) {
    try {
        shared_file::store(path, bytes);
        return {};
    } catch (const SharedFileError& error) {
        failAbout(path, error.what());
    }
}

std::tuple<> removeFile(const std::string& path) {
    shared_file::remove(path);
    return {};
}

}  // namespace
}  // namespace halvo

void halvo_free(HalvoReply reply) noexcept { delete static_cast<halvo::FlatWriter*>(reply.owner); }

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): defines functions.
#define HALVO_DEFINE(name, function) \
    HalvoReply name(HalvoValues values) noexcept { return halvo::call(values, function); }

HALVO_DEFINE(halvo_snapshot_decode, halvo::recordOf<halvo::WidgetSnapshot>)
HALVO_DEFINE(halvo_snapshot_encode, halvo::jsonOf<halvo::WidgetSnapshot>)
HALVO_DEFINE(halvo_snapshot_file, halvo::fileOf<halvo::WidgetSnapshot>)
HALVO_DEFINE(halvo_snapshot_kinds, halvo::kinds)
HALVO_DEFINE(halvo_snapshot_state, &halvo::WidgetSnapshot::state)
HALVO_DEFINE(halvo_snapshot_countdown, halvo::countdownOf)
HALVO_DEFINE(halvo_snapshot_day_is_empty, &halvo::WidgetSnapshot::Day::isEmpty)
HALVO_DEFINE(halvo_snapshot_moments, halvo::momentsAt)
HALVO_DEFINE(halvo_snapshot_timeline_dates, halvo::timelineDates)
HALVO_DEFINE(halvo_snapshot_reload_date, &halvo::WidgetSnapshot::reloadDate)
HALVO_DEFINE(halvo_moment_focus, &halvo::WidgetMoment::focus)
HALVO_DEFINE(halvo_keep_alive_decode, halvo::recordOf<halvo::KeepAliveState>)
HALVO_DEFINE(halvo_keep_alive_encode, halvo::jsonOf<halvo::KeepAliveState>)
HALVO_DEFINE(halvo_keep_alive_file, halvo::fileOf<halvo::KeepAliveState>)
HALVO_DEFINE(halvo_keep_alive_should_relaunch, &halvo::KeepAliveState::shouldRelaunch)
HALVO_DEFINE(halvo_keep_alive_was_bypassed, &halvo::KeepAliveState::wasBypassed)
HALVO_DEFINE(halvo_keep_alive_may_open, &halvo::KeepAliveState::mayOpen)
HALVO_DEFINE(halvo_link_reading, halvo::screenOf)
HALVO_DEFINE(halvo_link_url, halvo::urlOf)
HALVO_DEFINE(halvo_link_scheme, halvo::HalvoLink::scheme)
HALVO_DEFINE(halvo_group_identifier, halvo::AppGroup::identifier)
HALVO_DEFINE(halvo_group_container, halvo::AppGroup::container)
HALVO_DEFINE(halvo_file_read, halvo::contentOf)
HALVO_DEFINE(halvo_file_store, halvo::storeFile)
HALVO_DEFINE(halvo_file_remove, halvo::removeFile)
HALVO_DEFINE(halvo_launch_arguments, halvo::launchArguments)
