#pragma once

namespace vxlisten {

/// How much faster than nominal to play, in parts per million, so that sound which is `lateMs`
/// milliseconds late comes into step. `ratePpm` is what keeps its delay as it is; the sound began
/// `age` seconds ago. Quick in the first seconds, when little is known and much is to be made good;
/// then at a hundredth of what can be heard as a change of the delay. Pure. Realtime-safe: yes.
double stepCorrection(double lateMs, double ratePpm, double age);

}  // namespace vxlisten
