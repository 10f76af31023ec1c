// The order in which a handshake refused for its protocol version is tried
// again: TLS 1.2, TLS 1.1, TLS 1.0, negotiated, SSL 3, SSL 2.
#include "quarry.h"

extern "C" DL_EXPORT const int32_t tls_retry[6] = {5, 4, 0, 3, 2, 1};
