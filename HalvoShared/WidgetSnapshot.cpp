#include "HalvoShared/WidgetSnapshot.hpp"

#include <algorithm>
#include <ranges>

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/Coding.hpp"

namespace halvo {

template std::expected<WidgetSnapshot, JSON::DecodingError> JSON::decode(std::string_view json);
template std::expected<std::string, JSON::EncodingError> JSON::encode(const WidgetSnapshot& value);

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
