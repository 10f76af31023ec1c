/* libquarry: the phone's file-transfer client library.
 *
 * Conventions, stated once for the whole header:
 *
 * - Results. A function returns 0 (or a count) on success and a negative
 *   DL_ERR_* code on failure. Many transfer functions return plain -1 and
 *   put the precise code, with its text, into the caller's dl_error. HTTP
 *   status codes of failed requests come back as positive values.
 * - Ownership. The caller owns what it passes in. What the library hands
 *   out (dl_url, dl_handle, dl_http_conn, base64 text, TLS objects) is
 *   released with its matching function (dl_url_free, dl_close,
 *   dl_http_close) or with free().
 * - NULL. Unless a comment says a pointer may be NULL, a NULL argument is
 *   refused with a log line and an error result, never dereferenced.
 * - Threads. All settings live in g_dl_cfg, guarded by its cfg_lock. Call
 *   dl_config_init and dl_exit while no other thread uses the library;
 *   after that, transfers on different handles may run on different
 *   threads. Every transfer blocks the calling thread, bounded by the
 *   configured time-outs. The library starts no threads of its own.
 * - Logging. Every failure writes one log line through libq_log before it
 *   returns; the line texts are part of the interface.
 */
#ifndef QUARRY_H
#define QUARRY_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#if defined(DL_BUILDING_LIBRARY)
#define DL_EXPORT __attribute__((visibility("default")))
#else
#define DL_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ===================================================================== */
/* Result codes                                                           */
/* ===================================================================== */
/* 0 is success; negative values are the library's errors. Each has a fixed
 * English text, written by dl_get_error_string. */

#define DL_OK 0
#define DL_ERR_FAIL (-1)
#define DL_ERR_SOCKET (-2)
#define DL_ERR_CONNECT (-3)
#define DL_ERR_SEND (-4)
#define DL_ERR_RECV (-5)
#define DL_ERR_PARAM (-6)
#define DL_ERR_NOMEM (-7)
#define DL_ERR_READ (-8)
#define DL_ERR_URL (-9)
#define DL_ERR_PORT (-10)
#define DL_ERR_AUTH (-11)
#define DL_ERR_REDIRECT (-12)
#define DL_ERR_IPV6_DISABLED (-13)
#define DL_ERR_NO_CONFIG (-14)
#define DL_ERR_FTP_REPLY (-15)
#define DL_ERR_NOT_TFTP (-16)
#define DL_ERR_REDIRECT_URL (-17)
#define DL_ERR_FTP_USER (-18)
#define DL_ERR_FTP_PASS (-19)
#define DL_ERR_HOST (-20)
#define DL_ERR_MAX_SIZE (-21)
#define DL_ERR_SSL_METHOD (-22)
#define DL_ERR_CERT_VERIFY (-23)
#define DL_ERR_TLS_ALERT (-24)

/* The caller's error report: the result code and its text. */
typedef struct dl_error {
  int32_t code;
  char msg[256];
} dl_error;

/* dl_get_error_string writes the text for |code| (a DL_ERR_* value or one
 * of the HTTP statuses 200, 201, 400, 403, 408, 500, 501; anything else is
 * "Unknown Error") with snprintf(buf, n, text) and returns what snprintf
 * returns: the full text's length, even when |n| cut it. |buf| is not
 * checked. */
DL_EXPORT int dl_get_error_string(int code, char *buf, size_t n);

/* ===================================================================== */
/* Settings and lifecycle                                                 */
/* ===================================================================== */
/* One process-wide record, g_dl_cfg, holds every setting. dl_config_init
 * fills it with defaults (and brings up logging, the resolver and
 * OpenSSL), dl_set_option changes one setting under cfg_lock, dl_exit
 * tears everything down and zeroes the record. */

/* Option identifiers of dl_set_option. Text options take a const char*,
 * number options a pointer to a 32-bit integer. Ids 17..24, 29, 31 and
 * anything above 33 are refused. */
#define DL_OPT_USER_AGENT 0
#define DL_OPT_TRUST_CA_DIR 1
#define DL_OPT_SERVER_CERT_PATH 2
#define DL_OPT_SSL_METHOD 3
#define DL_OPT_SSL_VERIFY 4
#define DL_OPT_MAX_REDIRECTS 5
#define DL_OPT_MAX_FILE_SIZE 6
#define DL_OPT_TIMEOUT 7
#define DL_OPT_IPV6_ENABLE 8
#define DL_OPT_RING_ENTRY 9
#define DL_OPT_SSL_CHECK_HOST 10
#define DL_OPT_SSL_CA_PATH 11
#define DL_OPT_SSL_CERT_PATH 12
#define DL_OPT_TMP_DIR 13
#define DL_OPT_AUX_ID 14
#define DL_OPT_AUTH_RETRY 15
#define DL_OPT_KEY_PASSWORD 16
#define DL_OPT_CERT_GEN_PARAM 25
#define DL_OPT_SSL_CIPHER_LIST 26
#define DL_OPT_DATA_TRACE 27
#define DL_OPT_CONFIG_PATH_PREFIX 28
#define DL_OPT_RESOLV_CONF_PATH 30
#define DL_OPT_HOSTS_PATH 32
#define DL_OPT_USE_OWN_RESOLVER 33

#define DL_RING_MAP_ENTRIES 10
#define DL_RING_ENTRY_SIZE 128
#define DL_PATH_MAX_LEN 4096

/* The settings record. Callers depend on this layout: keep the order and
 * the widths. cfg_lock guards every field from config_path_prefix to
 * data_trace plus use_own_resolver and use_cfgserver; resolv_lock and
 * hosts_lock guard the resolver files' state. */
typedef struct dl_config {
  uint32_t initialised;
  pthread_mutex_t cfg_lock;
  char config_path_prefix[128];
  char user_agent[512];
  char trust_ca_dir[512];
  char server_cert_path[512];
  char ssl_ca_path[512];
  char ssl_cert_path[512];
  uint32_t ssl_method;
  uint32_t ssl_verify_peer;
  uint32_t max_redirects;
  uint32_t ssl_check_host;
  char tmp_dir[512];
  char key_password[512];
  char cert_gen_param[512];
  char ssl_cipher_list[512];
  uint32_t max_file_size;
  uint16_t timeout_s;
  uint16_t ipv6_enable;
  uint16_t auth_retry_limit;
  /* Entry: byte 0 its slot (0..9), byte 1 the ring value, bytes 2..127 a
   * zero-terminated name compared without regard to case. */
  uint8_t ring_map[DL_RING_MAP_ENTRIES][DL_RING_ENTRY_SIZE];
  char aux_id[20];
  uint16_t data_trace;
  char resolv_conf_path[DL_PATH_MAX_LEN];
  char resolv_conf_path_end[4]; /* terminates a path of exactly 4096 */
  int32_t resolv_conf_mtime;
  pthread_mutex_t resolv_lock;
  char hosts_path[DL_PATH_MAX_LEN];
  char hosts_path_end[4]; /* terminates a path of exactly 4096 */
  int32_t hosts_mtime;
  pthread_mutex_t hosts_lock;
  uint32_t use_own_resolver;
  uint32_t use_cfgserver;
} dl_config;

/* The settings record itself, zero at load and after dl_exit. */
DL_EXPORT extern dl_config g_dl_cfg;

/* dl_config_init fills g_dl_cfg with defaults once; later calls keep what
 * was set. Every call logs the version line. */
DL_EXPORT void dl_config_init(void);

/* dl_exit tears down the resolver, OpenSSL's locks and the record's
 * mutexes, and zeroes g_dl_cfg. */
DL_EXPORT void dl_exit(void);

/* dl_set_option sets option |id| from |value| (initialising the record
 * first when needed). Returns 0, or -1 when |value| is NULL, the id is
 * unknown or the value fails its range check; nothing is stored then. */
DL_EXPORT int dl_set_option(int id, const void *value);

/* dl_get_option copies text option 1, 13 or 14 into |buf| (strncpy with
 * |len|). Returns 0, or -1 for a NULL |buf|, an uninitialised record or
 * any other id. */
DL_EXPORT int dl_get_option(int id, char *buf, size_t len);

/* dl_get_version returns the library's fixed version text. */
DL_EXPORT const char *dl_get_version(void);

/* dl_config_data_trace_enable returns the data trace level. */
DL_EXPORT unsigned dl_config_data_trace_enable(void);

/* dl_get_config_path_prefix returns the address of the record's
 * config_path_prefix field itself (no copy, no lock). */
DL_EXPORT char *dl_get_config_path_prefix(void);

/* dl_config_use_cfgserver returns 1 when the phone's configuration tool
 * existed at initialisation, else 0. */
DL_EXPORT int dl_config_use_cfgserver(void);

/* ===================================================================== */
/* Logging                                                                */
/* ===================================================================== */
/* Lines go to one output: the system log socket "/dev/log" (type 1),
 * standard output with colours (type 2) or an append-only file (type 3).
 * Each of the seven modules has a threshold; a line is written when its
 * level (syslog's numbering, 0 emerg .. 7 debug, 8 and 9 beyond) is not
 * above its module's threshold. */

#define DL_LOG_MODULE_ANY 0
#define DL_LOG_MODULE_MEM 1
#define DL_LOG_MODULE_COMMON 2
#define DL_LOG_MODULE_HTTP 3
#define DL_LOG_MODULE_TFTP 4
#define DL_LOG_MODULE_FTP 5
#define DL_LOG_MODULE_DLNC 6

#define DL_LOG_TYPE_SYSLOG 1
#define DL_LOG_TYPE_STDOUT 2
#define DL_LOG_TYPE_FILE 3

/* Accepted and ignored: callback logging is not offered. */
typedef void (*dl_log_callback)(int level, const char *line);
typedef int (*dl_log_printf_callback)(const char *fmt, ...);

/* dl_log_init starts logging as "LIBQ": bit 0 of |flags| selects the
 * system log, else bit 1 standard output, else no output; bit 2 adds time
 * stamps. Returns 0. */
DL_EXPORT int dl_log_init(unsigned flags);

/* dl_log_new_init starts logging as "LIBQ" with output |type|, time
 * stamps from bit 0 of |flags| and, for a file, |path|. Returns 0. */
DL_EXPORT int dl_log_new_init(int type, int flags, const char *path);

/* dl_log_open sets every module to |level|, then switches to output
 * |type| (1..3) when it differs from the current one. Returns 0. */
DL_EXPORT int dl_log_open(int type, const char *path, unsigned level);

/* dl_set_log_module_level sets one module's threshold (module 0: all).
 * Returns the previous threshold, 0 for module 0, -1 above 6. */
DL_EXPORT int dl_set_log_module_level(unsigned module, unsigned level);

/* dl_set_log_level maps 0,1,2,3,other to thresholds 7,6,4,3,5 and sets
 * every module to it. Returns the last module's previous threshold. */
DL_EXPORT int dl_set_log_level(unsigned n);

/* dl_set_log_callback does nothing and returns |cb|. */
DL_EXPORT dl_log_callback dl_set_log_callback(dl_log_callback cb);

/* dl_set_log_cb_printf does nothing. */
DL_EXPORT void dl_set_log_cb_printf(dl_log_printf_callback cb);

/* ===================================================================== */
/* Transfer front door                                                    */
/* ===================================================================== */
/* Move a file by URL without knowing the protocol: the scheme picks the
 * HTTP, FTP or TFTP client. */

/* The caller's request; read only. |user| and |password| are used when
 * the URL carries none; |proxy| is handed to the HTTP client only. */
typedef struct dl_request {
  char *url;
  char *user;
  char *password;
  char *proxy;
} dl_request;

/* A streaming download, from dl_open until dl_close: the URL's scheme code
 * (DL_SCHEME_*) and the protocol client's own handle (dl_http_conn for
 * HTTP and HTTPS, dl_tftp_conn, dl_ftp_conn). Read only for callers. */
typedef struct dl_handle {
  uint32_t scheme;
  void *proto;
} dl_handle;

/* dl_open starts a streaming download of |req|->url by its scheme's
 * client; |redirect_out| (512 bytes) receives a redirect target and is
 * required for http and https. |err| is zeroed first and then filled by
 * the client. Returns 0 with |*out| set, or -1 with |*out| NULL. The
 * caller releases the handle with dl_close. */
DL_EXPORT int dl_open(const dl_request *req, dl_handle **out, char *redirect_out, dl_error *err);

/* dl_read reads up to |len| bytes of the download into |buf|. Returns the
 * client's result: the bytes read, 0 at the end, negative on failure; -1
 * for a bad argument or an unknown scheme. Nothing to free. */
DL_EXPORT int dl_read(dl_handle *h, void *buf, int len, dl_error *err);

/* dl_close ends the download and frees |h|. A NULL |h| is only logged.
 * Nothing is left to free. */
DL_EXPORT void dl_close(dl_handle *h);

/* dl_download saves |req|->url into the file |local_path|; |redirect_out|
 * (512 bytes) is required for http and https. Returns the client's
 * result (0 on success), or -1 for a bad argument, an unparsable URL or
 * an unknown scheme. Nothing to free. */
DL_EXPORT int dl_download(const dl_request *req, const char *local_path, char *redirect_out,
                          dl_error *err);

/* dl_upload sends the file |local_file| to |req|->url. For ftp and tftp
 * the remote name is the URL's directory followed by |remote_name| (NULL
 * or empty: the local file's name); |mode| and |option| are the FTP post
 * and limit modes. For http and https the file is posted to the URL as
 * given, with request type |mode| when it is 1 or 2 (else 1) and the
 * header text |extra_headers|; |redirect_out| and |extra_headers| are
 * required then. Returns the client's result (0 on success), or -1.
 * Nothing to free. */
DL_EXPORT int dl_upload(const dl_request *req, const char *local_file, const char *remote_name,
                        char *redirect_out, dl_error *err, const char *extra_headers, int mode,
                        int option);

/* path_is_file returns 1 when |path| is not empty and does not end in
 * '/', else 0 (also for NULL). Nothing to free. */
DL_EXPORT int path_is_file(const char *path);

/* path_is_upgrade_cfg_file returns 1 when |path| is not empty and holds a
 * '.', else 0 (also for NULL). Nothing to free. */
DL_EXPORT int path_is_upgrade_cfg_file(const char *path);

/* ===================================================================== */
/* URLs                                                                   */
/* ===================================================================== */

/* Scheme codes of the transfer parser (dl_url_parts). */
#define DL_SCHEME_HTTPS 0
#define DL_SCHEME_HTTP 1
#define DL_SCHEME_TFTP 2
#define DL_SCHEME_FTP 3
#define DL_SCHEME_NONE 4

/* Scheme codes of dl_url_parse (dl_url). */
#define DL_URL_SCHEME_HTTP 0
#define DL_URL_SCHEME_HTTPS 1

/* Result of the transfer parser url_split; strings are heap copies the
 * caller frees. */
typedef struct dl_url_parts {
  uint32_t scheme;
  char *host;
  int32_t port;
  char *path;
  char *user;
  char *password;
} dl_url_parts;

/* Result of dl_url_parse, released with dl_url_free. */
typedef struct dl_url {
  uint32_t scheme;
  uint32_t request_type;
  uint32_t is_ipv6;
  char *host;
  char *path;
  int32_t port;
  char *user;
  char *password;
} dl_url;

/* dl_url_parse parses an http:// or https:// URL (spaces become "%20")
 * and copies |user| and |password| (either may be NULL) into the record.
 * Returns a new zero-filled record with request_type 0, or NULL on
 * failure; |*err| (when |err| is not NULL) gets 0, DL_ERR_URL,
 * DL_ERR_IPV6_DISABLED or DL_ERR_NOMEM. The caller frees the record with
 * dl_url_free. */
DL_EXPORT dl_url *dl_url_parse(const char *url, const char *user, const char *password,
                               int *err);

/* dl_url_free frees the record's host, path, user and password (those not
 * NULL) and the record itself. |u| may be NULL. Nothing is left to free. */
DL_EXPORT void dl_url_free(dl_url *u);

/* ===================================================================== */
/* Files and text                                                         */
/* ===================================================================== */
/* Small helpers for files and for the phone's configuration tool. They
 * log their failures under DCMN. */

/* dl_get_file_md5 writes the MD5 digest of the file at |path| as 32
 * lower-case hexadecimal digits and a terminating zero into |hex_out|
 * (33 bytes). Returns 0, or -1 for a NULL |hex_out| or a file that cannot
 * be opened. A read error ends the digest early without being reported.
 * Nothing to free. */
DL_EXPORT int dl_get_file_md5(const char *path, char *hex_out);

/* dl_copy_file copies |src| to |dst| (created or truncated). Returns 0,
 * also when a write fell short, or -1 for a NULL argument or a file that
 * cannot be opened. Nothing to free. */
DL_EXPORT int dl_copy_file(const char *src, const char *dst);

/* dl_get_file_size returns the size of the file at |path|, or -1 when
 * |path| is NULL or stat fails. Nothing to free. */
DL_EXPORT int32_t dl_get_file_size(const char *path);

/* dl_get_file_mtime stores the modification time of |path| in |*mtime|.
 * Returns 0, or -1 (without a log line) for a NULL or empty |path|, a
 * NULL |mtime| or a failed stat. Nothing to free. */
DL_EXPORT int dl_get_file_mtime(const char *path, time_t *mtime);

/* dl_path_is_directory returns 1 when |path| exists and is a directory,
 * else 0 (also for NULL). Nothing to free. */
DL_EXPORT int dl_path_is_directory(const char *path);

/* dl_get_str_cmd runs "/boot/bin/cfgserver |arg1| |arg2|" and reads at
 * most one line of its output, newline kept, into |buf| with room |n|;
 * |buf| is left as it was when the tool prints nothing. The arguments are
 * not quoted: pass plain words only. Returns 0, or -1 when an argument is
 * NULL, |n| is below 1 or the command cannot be started. Nothing to
 * free. */
DL_EXPORT int dl_get_str_cmd(const char *arg1, const char *arg2, char *buf, int n);

/* ===================================================================== */
/* Connections                                                            */
/* ===================================================================== */
/* TCP connects bounded by a time-out, host look-up and the readiness wait
 * every client uses before it reads. */

struct addrinfo;

/* dl_connect resolves |host| (a name or a numeric address without
 * brackets) by getaddrinfo or the own resolver, then tries each address
 * in turn, IPv6 ones only when |ipv6| is nonzero, each bounded by
 * |timeout_s| seconds (0: a blocking connect). Resolver files changed on
 * disk are re-read first. Returns a connected, blocking socket (> 0), or
 * DL_ERR_HOST when the name did not resolve, or DL_ERR_CONNECT. The caller
 * closes the socket. */
DL_EXPORT int dl_connect(const char *host, int port, int ipv6, int timeout_s);

/* dl_look_up_host asks getaddrinfo for |host| with socket type
 * |socktype|, IPv4 only when |ipv6| is 0. Returns the list, or NULL on
 * failure. The caller frees the list with freeaddrinfo. */
DL_EXPORT struct addrinfo *dl_look_up_host(const char *host, int ipv6, int socktype);

/* dl_select waits up to |timeout_s| seconds until |fd| is readable (bit 0
 * of |mode|) or writable (bit 1); signals neither end nor stretch the
 * wait, and descriptors of FD_SETSIZE or above work too. Returns select's
 * result: > 0 ready, 0 timed out, < 0 failed (-1 with errno EBADF for a
 * negative or closed |fd|, EINVAL for a negative |timeout_s|). Logs
 * nothing. Nothing to free. */
DL_EXPORT int dl_select(int fd, int mode, int timeout_s);

/* ===================================================================== */
/* HTTP                                                                   */
/* ===================================================================== */

#define DL_HTTP_MAGIC 10111

/* Flags of an HTTP connection. */
#define DL_HTTP_CHUNKED 1
#define DL_HTTP_TLS 2
#define DL_HTTP_11 4
#define DL_HTTP_HAS_LENGTH 8
#define DL_HTTP_CLOSE 16

/* Request types of dl_http_param. */
#define DL_HTTP_GET 0
#define DL_HTTP_POST 1
#define DL_HTTP_PUT 2
#define DL_HTTP_DELETE 3

/* Request modes, the second member of dl_http_param_ex. */
#define DL_EX_NONE 0
#define DL_EX_MULTI_AUTH 1
#define DL_EX_XSI_AUTH 2
#define DL_EX_NO_TRY_REDIRECT 3
#define DL_EX_BASIC_AUTH 4
#define DL_EX_NO_TRY_AUTH 5

/* Results of parsing an authentication challenge. */
#define DL_AUTH_NONE 0
#define DL_AUTH_BAD 1
#define DL_AUTH_BADALGO 2
#define DL_AUTH_NOMEM 3
#define DL_AUTH_FINE 4

/* Ownership of a request header's texts. */
#define DL_HDR_OWN_NONE 0
#define DL_HDR_OWN_NAME 1
#define DL_HDR_OWN_VALUE 2
#define DL_HDR_OWN_BOTH 3

/* The caller's request description. |headers| is extra header text sent
 * verbatim (each line ending in "\r\n"); |proxy|, |headers| and |body| may
 * be NULL. */
typedef struct dl_http_param {
  int32_t type;
  char *url;
  char *user;
  char *password;
  char *proxy;
  char *headers;
  char *body;
} dl_http_param;

/* A request description with its request mode (DL_EX_*). */
typedef struct dl_http_param_ex {
  dl_http_param *param;
  int32_t mode;
} dl_http_param_ex;

/* One user/password pair of a credential list. */
typedef struct dl_http_cred {
  char *user;
  char *password;
} dl_http_cred;

/* An open HTTP exchange, from dl_http_open until dl_http_close. */
typedef struct dl_http_conn dl_http_conn;

/* A request being built for one exchange; its layout is private to the
 * HTTP client. */
typedef struct dl_http_request dl_http_request;

/* dl_http_open connects (through |param|->proxy when set, TLS for https),
 * sends the request of |param|, follows 301/302 redirects (the last
 * target is copied into |redirect_out|, 512 bytes) and answers 401
 * challenges. On success the handle stands at the start of the final
 * body and |err|->code is 0 or the HTTP status the caller is to see.
 * Returns 0 with |*conn_out| set, or -1 with |*conn_out| NULL and the code
 * (or an HTTP status of 400 or more, or 304) and its text in |err|. The
 * caller releases the handle with dl_http_close. */
DL_EXPORT int dl_http_open(dl_http_conn **conn_out, const dl_http_param *param,
                           char *redirect_out, dl_error *err);

/* dl_http_open_ex is dl_http_open with the request mode of |param_ex|
 * (DL_EX_*). 304 counts as success; so does 401 in DL_EX_NO_TRY_AUTH,
 * with 401 in |err|->code. Returns 0 or -1 like dl_http_open; the caller
 * releases the handle with dl_http_close. */
DL_EXPORT int dl_http_open_ex(dl_http_conn **conn_out, const dl_http_param_ex *param_ex,
                              char *redirect_out, dl_error *err);

/* dl_http_close ends the connection and frees |conn|. A NULL or dead
 * handle is ignored. Nothing is left to free. */
DL_EXPORT void dl_http_close(dl_http_conn *conn);

/* dl_http_read reads up to |len| body bytes into |buf| (by length,
 * chunked, or until the server closes). Returns the bytes placed, 0 at
 * the end of the body, or -1 with the code and text in |err|. Nothing to
 * free. */
DL_EXPORT int dl_http_read(dl_http_conn *conn, void *buf, int len, dl_error *err);

/* dl_http_find_header_by_name looks up a response header, |name| in any
 * case. Returns the whole line ("name: value", name in lower case), or
 * NULL when absent or for a NULL or empty |name|. The text belongs to the
 * handle and stays valid until it is reset or closed; do not free it. */
DL_EXPORT char *dl_http_find_header_by_name(dl_http_conn *conn, const char *name);

/* dl_http_auth_info_is_empty tells whether credentials are left to answer
 * a challenge: in DL_EX_MULTI_AUTH mode it takes the next pair of |req|'s
 * list (advancing it), otherwise it looks at |url|'s user and password.
 * Returns 1 when there are none, 0 when there are, -1 when either
 * argument is NULL. Nothing to free. */
DL_EXPORT int dl_http_auth_info_is_empty(const dl_url *url, dl_http_request *req);

/* dl_http_recv_to_file saves the body of |param|'s URL into |path| (NULL:
 * the URL's last path segment in the current directory), at most
 * max_file_size bytes. Returns 0, or -1 with the code in |err|; a failed
 * save leaves no file behind. Nothing to free. */
DL_EXPORT int dl_http_recv_to_file(const dl_http_param *param, const char *path,
                                   char *redirect_out, dl_error *err);

/* dl_http_recv_to_file_ex is dl_http_recv_to_file through dl_http_open_ex.
 * Returns 0 or -1. Nothing to free. */
DL_EXPORT int dl_http_recv_to_file_ex(const dl_http_param_ex *param_ex, const char *path,
                                      char *redirect_out, dl_error *err);

/* dl_http_post_file sends the file |path| by POST (raw, or as a multipart
 * form when |param|->headers names a boundary) or PUT; other request
 * types are refused. The response body is not read. Returns 0, or -1 with
 * the code (or an HTTP status of 400 or more) in |err|. On success
 * |*conn_out| only marks success: the handle itself is already released
 * and |*conn_out| points to a static dead handle (magic 0) that is never
 * usable; dl_http_close ignores it, nothing else may be given it, and it
 * must not be freed. */
DL_EXPORT int dl_http_post_file(dl_http_conn **conn_out, const dl_http_param *param,
                                const char *path, char *redirect_out, dl_error *err);

/* dl_http_post_multi_auth sends the POST of |param| (body text only) and
 * answers 401 challenges from the |count| pairs of |creds| (NULL: the
 * URL's own credentials). Returns 0 with |*conn_out| at the response body,
 * or -1 with the code in |err|. |creds| must outlive the call only; the
 * caller releases the handle with dl_http_close. */
DL_EXPORT int dl_http_post_multi_auth(dl_http_conn **conn_out, const dl_http_param *param,
                                      const dl_http_cred *creds, int count, char *redirect_out,
                                      dl_error *err);

/* ===================================================================== */
/* FTP                                                                    */
/* ===================================================================== */

#define DL_FTP_MAGIC 10139

/* An open FTP download, from dl_ftp_open until dl_ftp_close. */
typedef struct dl_ftp_conn dl_ftp_conn;

/* dl_ftp_open logs in to |host|:|port| (0: 21) as |user| (NULL or empty:
 * anonymous; a refused user falls back to anonymous), opens a passive
 * data connection, asks the size of |remote_path| and starts its
 * retrieval. Returns 0 with |*out| set, or -1 with |*out| NULL and the
 * code in |err| (for DL_ERR_FTP_REPLY the server's reply line). The
 * caller releases the handle with dl_ftp_close. */
DL_EXPORT int dl_ftp_open(dl_ftp_conn **out, const char *host, int port, const char *user,
                          const char *password, const char *remote_path, dl_error *err);

/* dl_ftp_read reads exactly |len| bytes, or what is left of the announced
 * size when that is less, into |buf|. Returns the bytes read, 0 at the
 * end of the file, or -1 with the code in |err|. Nothing to free. */
DL_EXPORT int dl_ftp_read(dl_ftp_conn *conn, void *buf, int len, dl_error *err);

/* dl_ftp_close closes both connections (no QUIT) and frees |conn|. A NULL
 * or dead handle is only logged. Nothing is left to free. */
DL_EXPORT void dl_ftp_close(dl_ftp_conn *conn);

/* dl_ftp_recv_to_file saves |remote_path| into |local_path| (NULL: the
 * remote path's last segment), at most max_file_size bytes. Returns 0, or
 * -1 with the code in |err|; a failed save leaves no file behind. Nothing
 * to free. */
DL_EXPORT int dl_ftp_recv_to_file(const char *host, int port, const char *user,
                                  const char *password, const char *remote_path,
                                  const char *local_path, dl_error *err);

/* dl_ftp_send_open logs in, opens a passive data connection and starts an
 * upload of |local_path| as |remote_name| (NULL or empty: the local
 * file's name): |post_mode| 1 appends, 2 stores; when remote plus local
 * size exceed max_file_size, |limit_mode| 1 stores instead and 2 stops.
 * Returns 0 with |*out| set, or -1 with |*out| NULL and the code in
 * |err|. The caller sends with dl_ftp_send and releases the handle with
 * dl_ftp_close. */
DL_EXPORT int dl_ftp_send_open(dl_ftp_conn **out, const char *host, int port, const char *user,
                               const char *password, const char *local_path,
                               const char *remote_name, int post_mode, int limit_mode,
                               dl_error *err);

/* dl_ftp_send sends the file |local_path| over the data connection,
 * closes it, checks the transfer reply and says QUIT. Returns the bytes
 * sent, or -1 with the code in |err|. The caller still closes the handle
 * with dl_ftp_close. */
DL_EXPORT int dl_ftp_send(dl_ftp_conn *conn, const char *local_path, dl_error *err);

/* dl_ftp_send_file uploads |local_path| as |remote_name| with
 * dl_ftp_send_open and dl_ftp_send. Returns 0, or -1 with the code in
 * |err|. Nothing to free. */
DL_EXPORT int dl_ftp_send_file(const char *host, int port, const char *user,
                               const char *password, const char *remote_name,
                               const char *local_path, int post_mode, int limit_mode,
                               dl_error *err);

/* dl_ftp_create_data_conn opens the passive data connection (EPSV first
 * when IPv6 is enabled, PASV otherwise or after a 522), using |reply|
 * (|reply_len| bytes) for the server's answer and |timeout_s| for the
 * connect. Returns 0 with the data socket stored in |conn|, or a negative
 * code. The socket is closed by dl_ftp_close. */
DL_EXPORT int dl_ftp_create_data_conn(dl_ftp_conn *conn, char *reply, int reply_len,
                                      int timeout_s);

/* ===================================================================== */
/* TFTP                                                                   */
/* ===================================================================== */

#define DL_TFTP_MAGIC 10133

/* An open TFTP download, from dl_tftp_open until dl_tftp_close. */
typedef struct dl_tftp_conn dl_tftp_conn;

/* dl_tftp_open sends a read request for |remote_name| to |host|:|port|
 * (0: 69) and waits for the server to answer. Returns 0 with |*out| set,
 * or -1 with |*out| NULL and the code in |err| (DL_ERR_NOT_TFTP when
 * nothing answered). The caller releases the handle with dl_tftp_close. */
DL_EXPORT int dl_tftp_open(dl_tftp_conn **out, const char *host, int port,
                           const char *remote_name, dl_error *err);

/* dl_tftp_read fills |buf| with up to |len| bytes of the file. Returns the
 * bytes delivered (fewer only at the end, 0 once all were delivered), or
 * -1 with the code in |err|. Nothing to free. */
DL_EXPORT int dl_tftp_read(dl_tftp_conn *conn, void *buf, int len, dl_error *err);

/* dl_tftp_close closes the socket and frees |conn|. A NULL or dead handle
 * is only logged. Nothing is left to free. */
DL_EXPORT void dl_tftp_close(dl_tftp_conn *conn);

/* dl_tftp_recv_to_file saves |remote_name| into |local_path| (NULL: a
 * file named like |remote_name|), at most max_file_size bytes. Returns 0,
 * or -1 with the code in |err|; a failed save leaves no file behind.
 * Nothing to free. */
DL_EXPORT int dl_tftp_recv_to_file(const char *host, int port, const char *remote_name,
                                   const char *local_path, dl_error *err);

/* dl_tftp_send_open sends a write request for |remote_name| and completes
 * the option negotiation. Returns 0 with |*out| set, or -1 with |*out|
 * NULL and the code in |err|. The caller sends with dl_tftp_send and
 * releases the handle with dl_tftp_close. */
DL_EXPORT int dl_tftp_send_open(dl_tftp_conn **out, const char *host, int port,
                                const char *remote_name, dl_error *err);

/* dl_tftp_send sends the whole file |local_path|. Returns the bytes sent,
 * or -1 with the code in |err|. The caller still closes the handle with
 * dl_tftp_close. */
DL_EXPORT int dl_tftp_send(dl_tftp_conn *conn, const char *local_path, dl_error *err);

/* dl_tftp_send_file uploads |local_path| as |remote_name| (NULL or empty:
 * the local file's name). Returns 0, or -1 with the code in |err|.
 * Nothing to free. */
DL_EXPORT int dl_tftp_send_file(const char *host, int port, const char *remote_name,
                                const char *local_path, dl_error *err);

/* ===================================================================== */
/* DNS                                                                    */
/* ===================================================================== */

/* One answer of the stub resolver: |count| addresses of |type| packed
 * into |addr|. */
typedef struct dns_answer {
  uint32_t ttl;
  uint32_t type;
  uint32_t flags;
  uint32_t count;
  uint8_t addr[512];
} dns_answer;

/* dl_dns_resolv answers one question about |name|: |type| 1 (A), 28
 * (AAAA) or 12 (PTR), |qclass| 1 (IN), from the hosts file and the name
 * servers in the configured order, with the configured time-out and
 * passes. Returns 0 when |answer| holds an answer, nonzero otherwise.
 * Nothing to free. */
DL_EXPORT int dl_dns_resolv(const char *name, int type, int qclass, dns_answer *answer);

/* dl_dns_resolv_timeout is dl_dns_resolv with |passes| over the server
 * list and |timeout_s| seconds per server. Returns 0 when |answer| holds
 * an answer, nonzero otherwise (-70 when servers answered without data).
 * Nothing to free. */
DL_EXPORT int dl_dns_resolv_timeout(const char *name, int type, int qclass, dns_answer *answer,
                                    int passes, int timeout_s);

/* dl_dns_set_timeout sets the seconds to wait for one server. Returns 0,
 * or -1 for a value below 1. Nothing to free. */
DL_EXPORT int dl_dns_set_timeout(int seconds);

/* dl_dns_set_nretry sets the passes over the server list. Returns 0, or
 * -1 for a value below 1. Nothing to free. */
DL_EXPORT int dl_dns_set_nretry(int passes);

/* dl_dns_set_resolv_seq sets the order of sources from the first |count|
 * entries of |seq| (1 hosts file, 2 name servers, 0 nothing); unset
 * entries become 0. Returns 0, or -1 for a NULL |seq| or a |count| above
 * 2. Nothing to free. */
DL_EXPORT int dl_dns_set_resolv_seq(const int *seq, int count);

/* dl_dns_reload_resolv_conf re-reads the resolver configuration file when
 * its modification time changed, then re-initialises libc's resolver.
 * Returns the reload's result, or -1 when nothing changed or the time
 * could not be read. Nothing to free. */
DL_EXPORT int dl_dns_reload_resolv_conf(void);

/* dl_dns_reload_hosts_conf re-reads the hosts file when its modification
 * time changed. Returns the reload's result, or -1 when nothing changed or
 * the time could not be read. Nothing to free. */
DL_EXPORT int dl_dns_reload_hosts_conf(void);

/* dl_dns_resolv_conf_destroy forgets the resolver file's time and frees
 * the server list. Returns 0. Nothing to free. */
DL_EXPORT int dl_dns_resolv_conf_destroy(void);

/* dl_dns_hosts_conf_destroy forgets the hosts file's time and frees the
 * hosts list. Returns 0. Nothing to free. */
DL_EXPORT int dl_dns_hosts_conf_destroy(void);

/* ===================================================================== */
/* TLS                                                                    */
/* ===================================================================== */
/* HTTPS connections get a fresh OpenSSL context and session each. Method
 * numbers (ssl_method and tls_retry): 0 TLS 1.0, 1 SSL 2, 2 SSL 3,
 * 3 negotiated, 4 TLS 1.1, 5 TLS 1.2. OpenSSL objects are named by their
 * struct tags so that this header needs no OpenSSL header. */

struct ssl_st;
struct ssl_ctx_st;

/* Method numbers to fall back to, in order, after a handshake failed with
 * DL_ERR_SSL_METHOD: {5, 4, 0, 3, 2, 1}. */
DL_EXPORT extern const int32_t tls_retry[6];

/* dl_do_SSL_connect runs a TLS handshake on the connected socket |fd|
 * with method number |method|, trust from the hashed directory |ca_dir|,
 * the client certificate and key in |cert_file| (NULL: none; missing:
 * none), server name indication for a |host| name (|host| may be NULL),
 * and, when |verify| is set, the chain check and (with |check_host|) the
 * host-name check. Leaves |fd| non-blocking. Returns 0 with |*out_ssl|
 * and |*out_ctx| set, or DL_ERR_CONNECT, DL_ERR_SSL_METHOD,
 * DL_ERR_CERT_VERIFY or DL_ERR_TLS_ALERT with the outs untouched. The
 * caller frees the session with SSL_free and the context with
 * SSL_CTX_free; the socket stays the caller's. */
DL_EXPORT int dl_do_SSL_connect(int fd, const char *cert_file, const char *ca_dir, int method,
                                int verify, int check_host, const char *host,
                                struct ssl_st **out_ssl, struct ssl_ctx_st **out_ctx);

/* dl_https_set_ssl_cipher sets the configured cipher list on |ctx|
 * ("DEFAULT" when empty, a safe fallback list when it selects nothing).
 * Returns 0, or -1 when OpenSSL refuses it. Nothing to free. */
DL_EXPORT int dl_https_set_ssl_cipher(struct ssl_ctx_st *ctx);

/* dl_https_check_cipher_str returns 0 when the cipher list |text| selects
 * at least one cipher under the configured method, else -1 (also for
 * NULL or a bad method). Nothing to free. */
DL_EXPORT int dl_https_check_cipher_str(const char *text);


/* ===================================================================== */
/* Certificates                                                           */
/* ===================================================================== */
/* The trusted CA directory (trust_ca_dir, ending in '/') holds installed
 * certificates as "<subject hash>.0" with links; its "ca/" holds links to
 * all CAs and "phoneca/" the factory CAs. The device certificate and key
 * live in one PEM file, server_cert_path. These functions return small
 * negative numbers of their own, not DL_ERR_* codes. */

#define DL_CA_LIST_MAX 10

typedef struct dl_ca_info {
  char cn[64];
  char org[64];
  char expiry[64];
  uint32_t hash;
  char path[64];
} dl_ca_info;

typedef struct dl_ca_list {
  uint32_t count;
  dl_ca_info info[DL_CA_LIST_MAX];
} dl_ca_list;

typedef struct dl_ca_info_ex {
  uint8_t version;
  char serial[64];
  char sig_alg[64];
  char pubkey_alg[64];
  int32_t pubkey_bits;
  char privkey_alg[64];
  int32_t privkey_bits;
  char issuer[64];
  char subject[64];
  uint32_t hash;
  char valid_from[64];
  char valid_to[64];
  char path[64];
  int32_t ext_count;
} dl_ca_info_ex;

typedef struct dl_ca_list_ex {
  uint32_t count;
  dl_ca_info_ex info[DL_CA_LIST_MAX];
} dl_ca_list_ex;

typedef struct dl_cert_result {
  int32_t status;
  char msg[256];
} dl_cert_result;

struct evp_pkey_st;

/* dl_install_ca installs the certificate file |path| (a DER file is
 * rewritten as PEM in place) into the trust directory under its subject
 * hash. Returns 0, -1 for an unusable file or directory, -2 when a
 * certificate of that hash is installed, -3 when it is a factory one.
 * Nothing to free. */
DL_EXPORT int dl_install_ca(const char *path);

/* dl_del_ca deletes the file |path| and every name of its subject hash in
 * the trust directory (factory ones excepted). Returns 0. Nothing to
 * free. */
DL_EXPORT int dl_del_ca(const char *path);

/* dl_get_ca_info fills |info| (not its path) from the certificate file
 * |path|. Returns 0, -1 for a NULL argument, -2 for a directory, an
 * unreadable file or one without subject. Nothing to free. */
DL_EXPORT int dl_get_ca_info(const char *path, dl_ca_info *info);

/* dl_get_trust_ca_info lists up to DL_CA_LIST_MAX certificates of the
 * trust directory into |list|; unreadable ones are deleted. Returns 0,
 * -1 for NULL, -2 when the directory cannot be opened. Nothing to free. */
DL_EXPORT int dl_get_trust_ca_info(dl_ca_list *list);

/* dl_get_ca_info_ex fills |info| (not its path) from the certificate file
 * |path|, rewriting a DER file as PEM; with bit 0 of |flags| the file
 * also holds the private key, whose type and bits are filled too.
 * |result| is cleared first. Returns 0, or -1 with |result|->status 1
 * (bad argument, unreadable certificate) or 2 (OpenSSL start failed).
 * Nothing to free. */
DL_EXPORT int dl_get_ca_info_ex(const char *path, dl_ca_info_ex *info, int flags,
                                dl_cert_result *result);

/* dl_get_trust_ca_info_ex lists up to DL_CA_LIST_MAX certificates of the
 * trust directory into |list|; unreadable ones are deleted. Returns 0, or
 * -1 with |result|->status 1 (NULL |list|) or 2 (directory cannot be
 * opened). Nothing to free. */
DL_EXPORT int dl_get_trust_ca_info_ex(dl_ca_list_ex *list, dl_cert_result *result);

/* dl_install_ser_ca checks that the PEM file |path| holds a certificate
 * and its matching key and differs from the custom and factory device
 * files, then copies it to server_cert_path. Returns 0, or -2 (key
 * unreadable), -3 (certificate unreadable), -4 (key mismatch), -5
 * (OpenSSL failure), -6 (directory), -7 (bad path or method, or same as
 * the custom file), -8 (same as the factory file). Nothing to free. */
DL_EXPORT int dl_install_ser_ca(const char *path);

/* dl_install_ser_ca_separate installs a certificate, a key or both (PEM
 * or DER) from |path|, taking the missing half from the current device
 * file, and writes them as PEM to server_cert_path. No match check.
 * Returns 0, or -1 on failure. Nothing to free. */
DL_EXPORT int dl_install_ser_ca_separate(const char *path);

/* dl_del_ser_ca removes the device certificate file. Returns 0. Nothing
 * to free. */
DL_EXPORT int dl_del_ser_ca(void);

/* dl_get_ser_ca_info fills |info| from the device certificate and checks
 * its key. Returns 0, -1 for NULL, -2 when the certificate is unreadable,
 * -3 when the key is missing or does not match (|info| is filled then).
 * Nothing to free. */
DL_EXPORT int dl_get_ser_ca_info(dl_ca_info *info);

/* dl_cert_verify verifies the certificate file |cert_path| (PEM or DER)
 * against the PEM file |ca_file| and the hashed directory |ca_dir| (NULL:
 * OpenSSL's defaults); bit 0 of |flags| first checks that the file is a
 * usable certificate-and-key pair. |result| is cleared first. Returns 0
 * when it verified, else -1 with |result|->status 1..11 and, where one
 * applies, a message. Nothing to free. */
DL_EXPORT int dl_cert_verify(const char *cert_path, const char *ca_dir, const char *ca_file,
                             int flags, dl_cert_result *result);

/* dl_cert_build_rsa_key returns in |*key_out| the PEM private key of
 * |key_path| when it is readable (|*existed_out| becomes 1), else a new
 * RSA key of |bits| bits with exponent 65537 (an unreadable file is
 * deleted; |*existed_out| untouched). Returns 0, or -1 when no key could
 * be made. The caller frees the key with EVP_PKEY_free. */
DL_EXPORT int dl_cert_build_rsa_key(const char *key_path, int bits, struct evp_pkey_st **key_out,
                                    int *existed_out);

/* dl_cert_write_key replaces the file |key_path| with |key| as
 * unencrypted PEM; |unused| is ignored. Returns 0, or -1 when no output
 * could be made. Nothing to free. */
DL_EXPORT int dl_cert_write_key(const char *key_path, int unused, struct evp_pkey_st *key);

/* dl_cert_build_csr_req_file makes a key of |bits| bits (the same for the
 * same cert_gen_param and common name, unless |key_path| already holds
 * one), writes a PEM signing request for |subject| ("/CN=.../O=...") to
 * |csr_path| and the key to |key_path|. Returns 0, or -1 on failure.
 * Nothing to free. */
DL_EXPORT int dl_cert_build_csr_req_file(const char *csr_path, const char *key_path,
                                         const char *subject, int bits);

/* dl_generate_client_cert makes a key as dl_cert_build_csr_req_file does,
 * a client certificate for |subject| signed with the CA certificate
 * |ca_cert_path| and its PEM key |ca_key_path|, and writes certificate and
 * key (PEM) to |cert_path|, and a new key also to |key_path|. Returns 0,
 * or -1 on failure. Nothing to free. */
DL_EXPORT int dl_generate_client_cert(const char *ca_cert_path, const char *ca_key_path,
                                      const char *key_path, const char *cert_path,
                                      const char *subject, int bits);

/* ===================================================================== */
/* Ring tones                                                             */
/* ===================================================================== */
/* A distinctive ring is either a downloaded WAV file cached as
 * "/tmp/<md5 of the URL>.wav" or the number of a built-in or configured
 * ring. */

/* Name prefixes of built-in rings, each followed in a name by the ring
 * number in decimal ("Bellcore-dr3" is ring 3); NULL-terminated. */
DL_EXPORT extern const char *const ring_tab[];

/* The bytes a downloaded ring file must hold at offsets 8..33: "WAVEfmt ",
 * fmt size 18, G.711 mu-law, one channel, 8000 Hz, 8000 bytes/s, block
 * align 1, little-endian. */
DL_EXPORT extern const uint8_t wave_fmt[26];

/* The host of an alert URL that only carries a ring name, as 127.0.0.1
 * does: "http://ring.invalid/..." is never fetched (".invalid" never
 * resolves, RFC 2606); the call handling puts the ring name in |name|.
 * Compared without regard to case. */
#define DL_RING_PLACEHOLDER_HOST "ring.invalid"

/* dl_distinctive_ringtone_download decides the ring for an alert |url|
 * and ring |name| (either may be NULL or empty). Without a URL, or with
 * one that does not parse, the name (else the URL text) is looked up: a
 * ring_tab prefix with the ring number after it, then the configured
 * ring_map entries. A URL on 127.0.0.1 or DL_RING_PLACEHOLDER_HOST is
 * never fetched; the name decides. Any other URL is fetched once over
 * HTTP into "/tmp/<md5 of the URL>.wav" (announced length at most 204800
 * bytes, head matching wave_fmt) and the path is copied into |path_out|
 * (strncpy with |path_len|); later calls find the file and send nothing.
 * A failed fetch falls back to the name. Returns 1 when a ring was
 * determined (a path, or a number in |*ring_out|, which stays -1 when a
 * name carried none), 0 for the default ring (every failure, and NULL
 * |ring_out| or |path_out|). A download cut off midway leaves its partial
 * file, which later calls take as cached: delete it to fetch again.
 * Nothing to free. */
DL_EXPORT int dl_distinctive_ringtone_download(const char *url, const char *name,
                                               int32_t *ring_out, char *path_out,
                                               size_t path_len);


#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QUARRY_H */
