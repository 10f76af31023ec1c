// ring/: the distinctive ring-tone decision. A ring is either the number of
// a built-in or configured ring, found by name, or a G.711 mu-law WAV file
// fetched over HTTP once and kept in /tmp under the MD5 of its URL. The C
// entry point and the exported tables are declared in quarry.h.
#ifndef QUARRY_RING_RING_H
#define QUARRY_RING_RING_H

#include <stddef.h>
#include <stdint.h>

namespace quarry {

// Largest body a ring-tone server may announce.
constexpr uint32_t kRingMaxAnnounced = 204800;
// Piece size of the download, and of the first piece whose head is checked.
constexpr int kRingPiece = 512;
// Where the fmt template sits in the file, and its length.
constexpr size_t kWaveFmtOffset = 8;
constexpr size_t kWaveFmtSize = 26;
// Room of the cache path: "/tmp/" + 32 hex digits + ".wav" fits easily.
constexpr size_t kRingPathRoom = 64;

// Writes the cache path of |url| ("/tmp/<md5 hex>.wav") into |path| (room
// kRingPathRoom). False when the digest could not be made.
bool ring_cache_path(const char *url, char *path);

// Whether |head| (|len| bytes from the start of a file) carries wave_fmt at
// offset 8; a head too short to hold it does not.
bool ring_wave_head_ok(const uint8_t *head, size_t len);

// The prefix step of the name look-up: 1 when |name| starts with a prefix
// of ring_tab (case ignored), with the number after it in |*ring| when one
// follows; else 0.
int ring_lookup_prefix(const char *name, int32_t *ring);

// The whole name look-up: the prefix step, then the configured ring_map
// under cfg_lock. Returns 1 when a ring was found, else 0.
int ring_lookup_name(const char *name, int32_t *ring);

// Fetches the WAV file of |url| into its cache path and copies that path
// into |path_out| (strncpy's contract with |path_len|). Returns 1 when the
// file was already cached (no traffic), 0 when it was downloaded, -1 on a
// failure (logged).
int ring_fetch(const char *url, char *path_out, size_t path_len);

}  // namespace quarry

#endif  // QUARRY_RING_RING_H
