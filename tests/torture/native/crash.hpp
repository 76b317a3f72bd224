#pragma once

namespace torture {

/// From now on a crash writes its native frames to standard error, one line "native: library offset symbol"
/// each, before the previous handler runs.
void watch_crashes() noexcept;

/// Writes the frames of the caller in the same form.
void write_frames() noexcept;

}  // namespace torture
