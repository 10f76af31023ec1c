// quarry ring URL [NAME]: which ring an incoming call with this alert URL
// and ring name would play.
#ifndef QUARRY_TOOLS_RING_CMD_H
#define QUARRY_TOOLS_RING_CMD_H

namespace quarry_cli {

// Runs "quarry ring" with the arguments after the command word. Prints
// "ring N", the cached WAV file's path, or "default" and returns 0; 2 for
// a usage error.
int run_ring(int argc, char **argv);

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_RING_CMD_H
