// The parts of Dispatch that reset() and the tests' interface need.
#pragma once

namespace fake {

void resetDispatch();

}  // namespace fake
