#include "HalvoShared/WidgetSnapshot.hpp"

#include <algorithm>
#include <array>
#include <ranges>

#include "HalvoShared/AppGroup.hpp"

namespace halvo {
namespace coding {

using S = WidgetSnapshot;

template <>
struct Names<S::Level> {
    static constexpr std::array<std::string_view, 3> texts{"gentle", "firm", "ultraHard"};
};

template <>
const Type& Coding<S::Level>::type() {
    static const Type type = enumeration<S::Level>();
    return type;
}

template <>
const Type& Coding<S::Look>::type() {
    static const Type type = RecordType({
        required<&S::Look::color>("color"),
        required<&S::Look::symbol>("symbol"),
    });
    return type;
}

template <>
const Type& Coding<S::Unlock>::type() {
    static const Type type = RecordType({
        required<&S::Unlock::name>("name"),
        required<&S::Unlock::end>("end"),
    });
    return type;
}

template <>
const Type& Coding<S::Running>::type() {
    static const Type type = RecordType({
        required<&S::Running::name>("name"),
        required<&S::Running::names>("names"),
        optional<&S::Running::look>("look"),
        required<&S::Running::start>("start"),
        optional<&S::Running::end>("end"),
        required<&S::Running::level>("level"),
        required<&S::Running::listNames>("listNames"),
        optional<&S::Running::unlock>("unlock"),
    });
    return type;
}

template <>
const Type& Coding<S::Upcoming>::type() {
    static const Type type = RecordType({
        required<&S::Upcoming::name>("name"),
        optional<&S::Upcoming::look>("look"),
        required<&S::Upcoming::start>("start"),
        required<&S::Upcoming::end>("end"),
        required<&S::Upcoming::level>("level"),
    });
    return type;
}

template <>
const Type& Coding<S::State>::type() {
    static const Type type = choice<S::State>({
        payload<S::State, &S::Block::running>("block"),
        payload<S::State, &S::Focus::running>("focus"),
        payload<S::State, &S::FocusFilter::running>("focusFilter"),
        payload<S::State, &S::Next::upcoming>("next"),
        bare<S::State, S::NothingScheduled>("nothingScheduled"),
        bare<S::State, S::NoBlocks>("noBlocks"),
    });
    return type;
}

template <>
const Type& Coding<S::Phase>::type() {
    static const Type type = RecordType({
        required<&S::Phase::start>("start"),
        required<&S::Phase::state>("state"),
    });
    return type;
}

template <>
const Type& Coding<S::Day>::type() {
    static const Type type = RecordType({
        required<&S::Day::start>("start"),
        required<&S::Day::breaths>("breaths"),
        required<&S::Day::minutesBreathed>("minutesBreathed"),
        required<&S::Day::stayedOff>("stayedOff"),
    });
    return type;
}

template <>
const Type& Coding<S::Breath>::type() {
    static const Type type = RecordType({
        required<&S::Breath::style>("style"),
        required<&S::Breath::minutes>("minutes"),
    });
    return type;
}

template <>
const Type& Coding<S::ListItem>::type() {
    static const Type type = RecordType({
        required<&S::ListItem::id>("id"),
        required<&S::ListItem::name>("name"),
        required<&S::ListItem::look>("look"),
    });
    return type;
}

template <>
const Type& Coding<S::BlockItem>::type() {
    static const Type type = RecordType({
        required<&S::BlockItem::id>("id"),
        required<&S::BlockItem::name>("name"),
        required<&S::BlockItem::look>("look"),
        required<&S::BlockItem::level>("level"),
        required<&S::BlockItem::isEnabled>("isEnabled"),
        required<&S::BlockItem::isRunning>("isRunning"),
    });
    return type;
}

template <>
const Type& Coding<WidgetSnapshot>::type() {
    static const Type type = RecordType({
        required<&S::writtenAt>("writtenAt"),
        required<&S::isRunning>("isRunning"),
        required<&S::blockCount>("blockCount"),
        required<&S::phases>("phases"),
        required<&S::horizon>("horizon"),
        required<&S::days>("days"),
        required<&S::breathe>("breathe"),
        required<&S::focusMinutes>("focusMinutes"),
        required<&S::lists>("lists"),
        required<&S::blocks>("blocks"),
    });
    return type;
}

}  // namespace coding

const SharedFile<WidgetSnapshot>& WidgetSnapshot::file() {
    static const SharedFile<WidgetSnapshot> file(fileName, AppGroup::container());
    return file;
}

WidgetSnapshot::State WidgetSnapshot::state(WallDate date) const {
    const auto backwards = std::views::reverse(phases);
    const auto started =
        std::ranges::find_if(backwards, [date](const Phase& phase) { return phase.start <= date; });
    if (started != backwards.end()) {
        return started->state;
    }
    return phases.empty() ? NoBlocks{} : phases.front().state;
}

}  // namespace halvo
