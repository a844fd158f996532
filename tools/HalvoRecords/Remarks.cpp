#include "tools/HalvoRecords/Remarks.hpp"

#include <cstddef>
#include <map>
#include <optional>

namespace halvo::records {
namespace {

struct EndOf {
    std::optional<WallDate> operator()(const WidgetSnapshot::Next& state) const {
        return state.upcoming.end;
    }

    std::optional<WallDate> operator()(const WidgetSnapshot::NothingScheduled& /*state*/) const {
        return std::nullopt;
    }

    std::optional<WallDate> operator()(const WidgetSnapshot::NoBlocks& /*state*/) const {
        return std::nullopt;
    }

    template <class Runs>
    std::optional<WallDate> operator()(const Runs& state) const {
        return state.running.end;
    }
};

std::string at(const char* list, std::size_t index) {
    return std::string(list) + "[" + std::to_string(index) + "]";
}

std::vector<std::string> remarksOn(const WidgetSnapshot& snapshot) {
    std::vector<std::string> all;
    const auto& phases = snapshot.phases;
    for (std::size_t i = 0; i < phases.size(); ++i) {
        if (i > 0 && phases[i].start < phases[i - 1].start) {
            all.push_back(at("phases", i) + " starts before " + at("phases", i - 1));
        } else if (i > 0 && phases[i].start == phases[i - 1].start) {
            all.push_back(at("phases", i) + " starts together with " + at("phases", i - 1));
        }
        if (const auto end = std::visit(EndOf{}, phases[i].state); end && *end < phases[i].start) {
            all.push_back(at("phases", i) + " shows what ended before it starts");
        }
    }
    if (snapshot.horizon < snapshot.writtenAt) {
        all.emplace_back("horizon is before writtenAt");
    }
    std::map<WallDate, std::size_t> firstWith;
    for (std::size_t i = 0; i < snapshot.days.size(); ++i) {
        const auto [first, isNew] = firstWith.emplace(snapshot.days[i].start, i);
        if (!isNew) {
            all.push_back(at("days", i) + " has the same start as " + at("days", first->second));
        }
    }
    return all;
}

}  // namespace

std::vector<std::string> remarks(const Record& record) {
    const auto* snapshot = std::get_if<WidgetSnapshot>(&record);
    return snapshot == nullptr ? std::vector<std::string>{} : remarksOn(*snapshot);
}

}  // namespace halvo::records
