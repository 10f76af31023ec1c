/* Links OpenSSL: the heap baselines of bench/footprint.sh, so that what
 * libquarry adds on top can be told apart. Without arguments it does
 * nothing; with "init" it initialises OpenSSL as dl_config_init does. */
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <string.h>

int main(int argc, char **argv) {
  if (argc > 1 && strcmp(argv[1], "init") == 0) {
    SSL_library_init();
    SSL_load_error_strings();
  }
  return 0;
}
