// Ring numbers by name: the built-in prefixes of ring_tab ("Bellcore-dr3"
// is ring 3), then the caller's configured ring_map.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "core/core.h"
#include "ring/ring.h"

namespace {

// Byte 1 of a ring_map entry is its ring, bytes 2..127 its name.
constexpr size_t kEntryRing = 1;
constexpr size_t kEntryName = 2;
constexpr size_t kEntryNameRoom = DL_RING_ENTRY_SIZE - kEntryName;

// Reads a decimal number as "%d" would (blanks, a sign, digits) into
// |*ring|. A number outside int32 is left alone rather than wrapped: it
// names no ring.
void read_ring_number(const char *text, int32_t *ring) {
  char *end = nullptr;
  errno = 0;
  long long value = strtoll(text, &end, 10);
  if (end == text || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) return;
  *ring = static_cast<int32_t>(value);
}

// Whether the entry's name (at most kEntryNameRoom bytes, a NUL ends it
// earlier) equals |name| without regard to case.
bool entry_name_is(const uint8_t *entry, const char *name, size_t name_len) {
  const char *entry_name = reinterpret_cast<const char *>(entry + kEntryName);
  return strnlen(entry_name, kEntryNameRoom) == name_len &&
         strncasecmp(entry_name, name, name_len) == 0;
}

}  // namespace

namespace quarry {

int ring_lookup_prefix(const char *name, int32_t *ring) {
  for (size_t i = 0; ring_tab[i] != nullptr; ++i) {
    const size_t len = strlen(ring_tab[i]);
    if (strncasecmp(name, ring_tab[i], len) == 0) {
      read_ring_number(name + len, ring);
      return 1;
    }
  }
  return 0;
}

int ring_lookup_name(const char *name, int32_t *ring) {
  if (ring_lookup_prefix(name, ring) == 1) return 1;
  const size_t name_len = strlen(name);
  if (name_len == 0) return 0;  // would match every unused slot
  CfgLock lock;
  for (size_t slot = 0; slot < DL_RING_MAP_ENTRIES; ++slot) {
    const uint8_t *entry = g_dl_cfg.ring_map[slot];
    if (entry_name_is(entry, name, name_len)) {
      *ring = entry[kEntryRing];
      return 1;
    }
  }
  return 0;
}

}  // namespace quarry
