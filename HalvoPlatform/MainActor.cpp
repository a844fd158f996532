#include "HalvoPlatform/MainActor.hpp"

#include "HalvoPlatform/Fatal.hpp"

namespace halvo {

void assumeMainActor() {
    if (!onMainActor()) {
        fatal("Incorrect actor executor assumption; Expected same executor as MainActor.");
    }
}

}  // namespace halvo
