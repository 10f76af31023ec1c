// The ring tables callers see: the built-in ring prefixes and the head a
// downloaded ring file must carry.
#include "core/core.h"
#include "ring/ring.h"

// Defined with "extern" so that the const objects keep external linkage
// (and their visibility) whatever the declaration in scope.
extern "C" {

extern DL_EXPORT const char *const ring_tab[] = {"ringtone-", "Bellcore-dr", "MyMelody", nullptr};

// File offsets 8..33 of a G.711 mu-law mono 8 kHz WAV file, little-endian.
extern DL_EXPORT const uint8_t wave_fmt[quarry::kWaveFmtSize] = {
    'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',  // RIFF form type, fmt chunk tag
    18, 0, 0, 0,                              // fmt chunk size
    7, 0,                                     // format tag: mu-law
    1, 0,                                     // channels
    0x40, 0x1f, 0, 0,                         // samples per second: 8000
    0x40, 0x1f, 0, 0,                         // bytes per second: 8000
    1, 0,                                     // block align
};

}  // extern "C"

namespace quarry {

bool ring_wave_head_ok(const uint8_t *head, size_t len) {
  // A short head would be compared against stale buffer bytes: refuse it.
  if (head == nullptr || len < kWaveFmtOffset + kWaveFmtSize) return false;
  return memcmp(head + kWaveFmtOffset, wave_fmt, kWaveFmtSize) == 0;
}

}  // namespace quarry
