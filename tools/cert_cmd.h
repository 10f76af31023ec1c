// quarry cert ...: the certificate store from the command line.
#ifndef QUARRY_TOOLS_CERT_CMD_H
#define QUARRY_TOOLS_CERT_CMD_H

namespace quarry_cli {

// Runs "quarry cert ..." (|argv|[1] is "cert"). Returns the exit status:
// 0 done, 1 the library refused, 2 usage.
int run_cert(int argc, char **argv);

}  // namespace quarry_cli

#endif  // QUARRY_TOOLS_CERT_CMD_H
