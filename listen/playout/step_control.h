#pragma once

namespace vxlisten {

/// How long after the start of sound it is aligned more quickly.
constexpr double SETTLING_SECONDS = 3;

/// How much faster than nominal to play, in parts per million, so that sound which is `lateMs`
/// milliseconds late comes into step. `ratePpm` is what keeps its delay as it is; the sound began
/// `age` seconds ago. In the first SETTLING_SECONDS up to 5 ms a second; later 2 ms, so
/// that the delay never changes by 1 ms within a tenth of a second. Pure. Realtime-safe: yes.
double stepCorrection(double lateMs, double ratePpm, double age);

}  // namespace vxlisten
