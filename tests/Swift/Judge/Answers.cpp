// Answers the questions of the Swift tests until its standard input ends. A question is a line of
// its kind and size, then its bytes; an answer is its size in eight characters, then its bytes.

#include <array>
#include <cstddef>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/GregorianCalendar.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace {

using namespace halvo;

// A record's text: "+" and the record as text again, or "-KIND PATH" with Foundation's kinds.
template <class Record>
std::string answerRecord(const std::string& text) {
    const auto record = JSON::decode<Record>(text);
    if (record) {
        return "+" + JSON::encode(*record).value_or("(cannot be encoded)");
    }
    constexpr std::array kinds{"corrupt", "missing", "type", "corrupt"};
    const JSON::Error& error = record.error();
    return std::string("-") + kinds.at(static_cast<std::size_t>(error.kind)) + " " + error.path;
}

// "SCHEME\nURL": the URL, under that scheme, of the link that the other URL leads to.
std::string answerLink(const std::string& question) {
    const std::size_t end = question.find('\n');
    return HalvoLink::reading(question.substr(end + 1)).url(question.substr(0, end));
}

// A zone's name: "INSTANT OFFSET " for each of its transitions; nothing when there is no such zone.
std::string answerZone(const std::string& name) {
    std::ostringstream answer;
    for (const OffsetChange& change : TimeZone::read(name).value_or(TimeZone{{}, {}}).changes) {
        answer << change.begin.time_since_epoch().count() << ' ' << change.offset.count() << ' ';
    }
    return answer.str();
}

// "ZONE INSTANT...", for each instant a line: the starts of its day and of the next one, the dates
// -8 to 8 and -364 and 364 days later, and the week, as starts and breaths, of a snapshot with nine
// records, one for each 24 hours from seven days before on, whose breaths are 1 to 9.
std::string answerDays(const std::string& question) {
    std::istringstream words(question);
    std::ostringstream answer;
    const auto print = [&answer](std::optional<WallDate> date) {
        answer << (date ? std::to_string(wholeSeconds(date->time_since_epoch())) : "-") << ' ';
    };
    std::string name;
    words >> name;
    const auto calendar = GregorianCalendar::named(name).value();
    for (double seconds = 0; words >> seconds;) {
        const WallDate date = wallDate(seconds);
        print(calendar.startOfDay(date));
        print(calendar.startOfNextDay(date));
        for (int count = -8; count <= 8; ++count) {
            print(calendar.addingDays(count, date));
        }
        print(calendar.addingDays(-364, date));
        print(calendar.addingDays(364, date));
        WidgetSnapshot snapshot;
        for (int day = 1; day <= 9; ++day) {
            snapshot.days.push_back({date + std::chrono::days{day - 8}, day, 0, 0});
        }
        for (const WidgetSnapshot::Day& day : snapshot.moment(date, calendar).week) {
            print(day.start);
            answer << day.breaths << ' ';
        }
        answer << '\n';
    }
    return answer.str();
}

}  // namespace

int main() {
    const std::map<std::string, std::string (*)(const std::string&)> answers{
        {"keepalive", answerRecord<KeepAliveState>},
        {"widgets", answerRecord<WidgetSnapshot>},
        {"link", answerLink},
        {"zone", answerZone},
        {"days", answerDays}};
    std::string kind;
    std::size_t size = 0;
    while (std::cin >> kind >> size && std::cin.ignore()) {
        std::string question(size, '\0');
        std::cin.read(question.data(), static_cast<std::streamsize>(size));
        const std::string answer = answers.at(kind)(question);
        std::cout << std::setw(8) << answer.size() << answer << std::flush;
    }
    return EXIT_SUCCESS;
}
