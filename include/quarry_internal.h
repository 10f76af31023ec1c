/* libquarry's named internal functions.
 *
 * These keep the names they have in the phone's firmware and are exported
 * with C linkage so that tests and tools reach them through the shared
 * library. Applications use quarry.h only.
 */
#ifndef QUARRY_INTERNAL_H
#define QUARRY_INTERNAL_H

#include <stdarg.h>

#include "quarry.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ===================================================================== */
/* Logging engine                                                         */
/* ===================================================================== */

#define LIBQ_LOG_MODULES 7

/* libq_log formats and writes one line of |module| at |level|. Returns the
 * write's result for standard output, else 0 or a negative value. */
DL_EXPORT int libq_log(unsigned module, int level, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
DL_EXPORT int libq_vlog(unsigned module, int level, const char *fmt, va_list ap)
    __attribute__((format(printf, 3, 0)));

/* libq_log_init closes any output, resets thresholds to 4, takes |type|,
 * the time flag (bit 0 of |flags|) and the four-byte |tag| ("????" for
 * NULL), opens the output and logs its settings. Returns 0. */
DL_EXPORT int libq_log_init(const char *tag, int type, int flags, const char *path);

/* libq_log_open switches to output |type| (1..3) when it differs from the
 * current one. Returns 0. */
DL_EXPORT int libq_log_open(unsigned type, const char *path);

/* libq_log_exit closes the output and restores the load-time state. */
DL_EXPORT int libq_log_exit(void);

/* libq_log_set sets a module's threshold (module 0: all) and returns the
 * previous one (0 for module 0, -1 above 6). */
DL_EXPORT int libq_log_set(unsigned module, unsigned level);

/* libq_log_set2 is libq_log_set by module name; -1 when none matches. */
DL_EXPORT int libq_log_set2(const char *name, unsigned level);

/* libq_log_get returns a module's threshold, -1 above 6. */
DL_EXPORT int libq_log_get(unsigned module);

/* libq_log_name returns a module's four-character name, NULL above 6. */
DL_EXPORT const char *libq_log_name(unsigned module);

/* ===================================================================== */
/* URL parsing                                                            */
/* ===================================================================== */

/* url_remove_special_char writes |src| into |dst| without leading and
 * trailing spaces and without any TAB, LF or CR. Does nothing when either
 * is NULL or |dst_size| is not larger than strlen(src). Nothing to free. */
DL_EXPORT void url_remove_special_char(char *dst, size_t dst_size, const char *src);

/* url_split splits a transfer URL (https, http, tftp, ftp; no scheme means
 * tftp) into |parts|, zeroed first. Returns 0, or -1 on any failure. The
 * caller frees host, path, user and password of |parts| in both cases
 * (some may be set after a failure). */
DL_EXPORT int url_split(const char *url, dl_url_parts *parts);

/* url_rebuild fills |out| from |request| and |parts|: a URL without login
 * information, the URL's user and password or else the request's, and the
 * request's proxy. Returns 0, or -1 when memory runs out. The caller frees
 * out->url; the other texts are borrowed. */
DL_EXPORT int url_rebuild(const dl_request *request, dl_http_param *out,
                          const dl_url_parts *parts);

/* scheme_default_port returns the default port of row |index| of the HTTP
 * scheme table (0 http: 80, 1 https: 443, 2 end: -1); an index past the
 * end row is logged and gives -1 too. Nothing to free. */
DL_EXPORT int scheme_default_port(unsigned index);

/* ===================================================================== */
/* Text and encoding helpers                                              */
/* ===================================================================== */

/* strdupdelim returns a new string holding [begin, end), or NULL when
 * memory runs out. The caller frees it. */
DL_EXPORT char *strdupdelim(const char *begin, const char *end);

/* str2lower lowers |s| in place until a zero byte, the character |stop|,
 * or |n| characters. Nothing to free. */
DL_EXPORT void str2lower(char *s, size_t n, int stop);

/* isfromdialpad returns 1 when every character of |s| is a digit, '*' or
 * '#' (also for ""), else 0. Nothing to free. */
DL_EXPORT int isfromdialpad(const char *s);

/* Curl_base64_encode encodes |len| bytes of |src| (|len| 0: strlen(src))
 * as padded standard base64 into a new string in |*out|. Returns its
 * length; 0 with |*out| NULL when memory ran out. The caller frees |*out|. */
DL_EXPORT size_t Curl_base64_encode(const void *src, size_t len, char **out);

/* Curl_base64_decode decodes standard base64 text, whole four-character
 * groups only, characters outside the alphabet counting as 0, into a new
 * zero-terminated buffer in |*out|. Returns the bytes decoded; 0 with
 * |*out| NULL when there is nothing to decode or memory ran out. The
 * caller frees |*out|. */
DL_EXPORT size_t Curl_base64_decode(const char *src, unsigned char **out);

/* Curl_base64url_decode is Curl_base64_decode for the URL-safe alphabet
 * with optional padding. Returns the bytes decoded, 0 (|*out| NULL) for
 * an input whose length leaves 1 modulo 4 or when memory ran out. The
 * caller frees |*out|. */
DL_EXPORT size_t Curl_base64url_decode(const char *src, unsigned char **out);

/* ===================================================================== */
/* Formatting                                                             */
/* ===================================================================== */
/* printf-style formatting with libc's conversions. The int results are
 * what the libc counterpart returns (negative on failure); nothing to
 * free except the strings of curl_maprintf and curl_mvaprintf, which
 * return a new string the caller frees, or NULL on failure. */

DL_EXPORT int curl_msnprintf(char *buffer, size_t maxlength, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
DL_EXPORT int curl_mvsnprintf(char *buffer, size_t maxlength, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
DL_EXPORT char *curl_maprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
DL_EXPORT char *curl_mvaprintf(const char *format, va_list args)
    __attribute__((format(printf, 1, 0)));
DL_EXPORT int curl_msprintf(char *buffer, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
DL_EXPORT int curl_mprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
DL_EXPORT int curl_mfprintf(FILE *fd, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
DL_EXPORT int curl_mvsprintf(char *buffer, const char *format, va_list args)
    __attribute__((format(printf, 2, 0)));
DL_EXPORT int curl_mvprintf(const char *format, va_list args)
    __attribute__((format(printf, 1, 0)));
DL_EXPORT int curl_mvfprintf(FILE *fd, const char *format, va_list args)
    __attribute__((format(printf, 2, 0)));

/* ===================================================================== */
/* Connections                                                            */
/* ===================================================================== */

/* net_connect_addr connects to the raw address |addr| (4 bytes for
 * AF_INET, else 16 for AF_INET6, network order) and |port|, bounded by
 * |timeout_s| seconds (0: blocking). Returns a connected, blocking socket,
 * -1 when no socket could be made, or DL_ERR_CONNECT. The caller closes
 * the socket. */
DL_EXPORT int net_connect_addr(int family, const void *addr, int port, int timeout_s);

/* net_connect_dns resolves |host| through the own resolver for |qtype| (1
 * IPv4, 28 IPv6) and connects to each address in turn. Returns a
 * connected socket, DL_ERR_HOST when nothing was found, or
 * DL_ERR_CONNECT. The caller closes the socket. */
DL_EXPORT int net_connect_dns(const char *host, int qtype, int port, int timeout_s);

/* ===================================================================== */
/* DNS stub resolver                                                      */
/* ===================================================================== */

/* dns_query asks the configured name servers over UDP, |passes| times
 * round, waiting |timeout_s| seconds for each. Returns 0 when |answer|
 * holds an answer, -1 on failure, -70 when servers answered without data.
 * Nothing to free. */
DL_EXPORT int dns_query(const char *name, int type, int qclass, dns_answer *answer, int passes,
                        int timeout_s);

/* ===================================================================== */
/* Resolver configuration                                                 */
/* ===================================================================== */
/* One process-wide resolver context holds the name servers and the hosts
 * entries, each list behind its own read-write lock. The _real functions
 * take the context; the short names work on the process-wide one. */

struct sockaddr;

/* The resolver context; its layout is private to the resolver. */
typedef struct dns_conf_base_st dns_conf_base_st;

/* dns_ctx_init seeds rand, clears the context, makes its locks and the
 * settings mutex, and sets the time-out to 5 and the passes to 2. Returns
 * 0, or nonzero when a lock could not be made. Release with
 * dns_ctx_destroy. */
DL_EXPORT int dns_ctx_init(void);

/* dns_ctx_destroy frees both lists and destroys the context's locks and
 * the settings mutex. Returns 0, or nonzero when a lock could not be
 * destroyed. Nothing to free. */
DL_EXPORT int dns_ctx_destroy(void);

/* dns_conf_base_st_init empties both lists of |ctx| and makes their
 * read-write locks. Returns 0, or -1 for a NULL |ctx|. Release with
 * dns_conf_base_st_destroy. */
DL_EXPORT int dns_conf_base_st_init(dns_conf_base_st *ctx);

/* dns_conf_base_st_destroy empties both lists of |ctx| and destroys their
 * locks. Returns 0, or -1 for a NULL |ctx|. Nothing to free. */
DL_EXPORT int dns_conf_base_st_destroy(dns_conf_base_st *ctx);

/* dns_load_resolv_conf_real adds the name servers of the file |path| (at
 * most 6; 127.0.0.1 when the file is missing) to the server list of
 * |ctx| without emptying it first. Returns 0. Free the entries with
 * dns_resolv_conf_destroy_real. */
DL_EXPORT int dns_load_resolv_conf_real(dns_conf_base_st *ctx, const char *path);
/* dns_load_resolv_conf is dns_load_resolv_conf_real on the process-wide
 * context. Returns 0. */
DL_EXPORT int dns_load_resolv_conf(const char *path);

/* dns_load_hosts_real adds the entries of the hosts file |path| (the two
 * localhost lines when it is missing) at the head of the hosts list of
 * |ctx| without emptying it first. Returns 0. Free the entries with
 * dns_hosts_conf_destroy_real. */
DL_EXPORT int dns_load_hosts_real(dns_conf_base_st *ctx, const char *path);
/* dns_load_hosts is dns_load_hosts_real on the process-wide context.
 * Returns 0. */
DL_EXPORT int dns_load_hosts(const char *path);

/* dns_reload_resolv_conf_real frees every server entry of |ctx| and reads
 * the file |path| again. Returns -1 always, also after a successful
 * reload; callers ignore it. Nothing to free. */
DL_EXPORT int dns_reload_resolv_conf_real(dns_conf_base_st *ctx, const char *path);
/* dns_reload_resolv_conf is dns_reload_resolv_conf_real on the
 * process-wide context. Returns -1 always. */
DL_EXPORT int dns_reload_resolv_conf(const char *path);

/* dns_reload_hosts_conf_real frees every hosts entry of |ctx| and reads
 * the file |path| again. Returns 0. Nothing to free. */
DL_EXPORT int dns_reload_hosts_conf_real(dns_conf_base_st *ctx, const char *path);
/* dns_reload_hosts_conf is dns_reload_hosts_conf_real on the process-wide
 * context. Returns 0. */
DL_EXPORT int dns_reload_hosts_conf(const char *path);

/* dns_resolv_conf_destroy_real frees the server list of |ctx| under its
 * write lock. Returns 0. Nothing to free. */
DL_EXPORT int dns_resolv_conf_destroy_real(dns_conf_base_st *ctx);
/* dns_resolv_conf_destroy is dns_resolv_conf_destroy_real on the
 * process-wide context. Returns 0. */
DL_EXPORT int dns_resolv_conf_destroy(void);

/* dns_hosts_conf_destroy_real frees the hosts list of |ctx| under its
 * write lock. Returns 0. Nothing to free. */
DL_EXPORT int dns_hosts_conf_destroy_real(dns_conf_base_st *ctx);
/* dns_hosts_conf_destroy is dns_hosts_conf_destroy_real on the
 * process-wide context. Returns 0. */
DL_EXPORT int dns_hosts_conf_destroy(void);

/* dns_conf_destroy frees both lists of the process-wide context. Returns
 * 0. Nothing to free. */
DL_EXPORT int dns_conf_destroy(void);

/* evutil_parse_sockaddr_port parses "[v6]:port", "[v6]", "v6", "v4:port"
 * or "v4" (port 1..65535; absent: 0) into |out|, whose room |*outlen|
 * must be at least 16 (IPv4) or 28 (IPv6); |*outlen| becomes the length
 * used. Returns 0, or -1 on failure. Nothing to free. */
DL_EXPORT int evutil_parse_sockaddr_port(const char *str, struct sockaddr *out, int *outlen);

/* evutil_sockaddr_cmp orders two socket addresses: by family, then by
 * address, then (with |include_port|) by port. Returns a negative value,
 * 0 or a positive value; other families compare as 1. Nothing to free. */
DL_EXPORT int evutil_sockaddr_cmp(const struct sockaddr *sa1, const struct sockaddr *sa2,
                                  int include_port);

/* ===================================================================== */
/* TLS callbacks                                                          */
/* ===================================================================== */

struct x509_store_ctx_st;

/* password_cb is OpenSSL's pass-phrase callback: with |userdata| NULL it
 * writes key_password into |buf| (room |size|, terminated), otherwise up
 * to |size| bytes of |userdata| without a terminator. |rwflag| is ignored.
 * Returns the bytes written. Nothing to free. */
DL_EXPORT int password_cb(char *buf, int size, int rwflag, void *userdata);

/* cb is the verification callback of certificate stores: it keeps
 * |preverify_ok| when nonzero, else logs the failure and accepts only the
 * tolerated errors (CRL not yet valid or expired, self-signed leaf,
 * invalid CA, path length, purpose, unhandled critical extension).
 * Returns 1 to accept, 0 to reject. Nothing to free. */
DL_EXPORT int cb(int preverify_ok, struct x509_store_ctx_st *store_ctx);

/* ===================================================================== */
/* HTTP request building                                                  */
/* ===================================================================== */
/* The records of one exchange; their layouts are private to the HTTP
 * client. */

typedef struct dl_http_header dl_http_header;
typedef struct dl_http_body dl_http_body;
typedef struct dl_http_chunk dl_http_chunk;

/* http_request_new returns a new request with room for 8 headers and an
 * empty body record, or NULL when memory runs out. The caller frees it
 * with http_request_free. */
DL_EXPORT dl_http_request *http_request_new(void);

/* http_request_free frees the request line, the headers per their
 * ownership, the body's head and tail, closes its file and frees the
 * records. Body text, path, extra text and credentials are the caller's.
 * |req| may be NULL. */
DL_EXPORT void http_request_free(dl_http_request *req);

/* http_set_header sets header |name| to |value| (replacing an entry of
 * the same name in place, else appending); |ownership| (DL_HDR_OWN_*)
 * says which of the two texts the request frees. A NULL |value| sets
 * nothing. Returns 0, or DL_ERR_NOMEM (owned texts are freed then). */
DL_EXPORT int http_set_header(dl_http_request *req, const char *name, const char *value,
                              int ownership);

/* http_set_request_line sets "<method> <path> HTTP/1.1\r\n" for request
 * |type| (DL_HTTP_*). Returns 0, DL_ERR_URL for a type above 3, or
 * DL_ERR_NOMEM. The request owns the line. */
DL_EXPORT int http_set_request_line(dl_http_request *req, int type, const char *path);

/* http_make_request builds request line, Host, User-Agent, Accept,
 * Connection (plain HTTP only, by DL_HTTP_TLS in |flags|), a pre-emptive
 * Basic Authorization in DL_EX_BASIC_AUTH mode, the body and
 * Content-Length, from |url| and the borrowed header text |extra| and
 * body text |body| (either may be NULL). Returns 0 or a negative code.
 * The request owns what it built; free it with http_request_free. */
DL_EXPORT int http_make_request(uint32_t flags, dl_http_request *req, const char *extra,
                                const char *body, const dl_url *url);

/* http_set_body prepares the body from the body text or, for PUT and
 * POST, the file path (raw, or a multipart form when the extra header
 * text names a boundary). Returns 0, or DL_ERR_PARAM. The request owns
 * what it prepared. */
DL_EXPORT int http_set_body(dl_http_request *req);

/* http_send_request serialises and sends |req| on |conn|, in one block or,
 * from 16385 bytes on, header and body separately. Returns 0, DL_ERR_SEND
 * or DL_ERR_NOMEM. Nothing to free. */
DL_EXPORT int http_send_request(dl_http_conn *conn, dl_http_request *req);

/* http_connect connects |conn| to |host|:|port| and, unless |proxy| is
 * set or DL_HTTP_TLS is clear, runs the TLS handshake with the version
 * fallback of tls_retry. Returns 0, or the negative code of the connect
 * or handshake (the socket is closed then). The connection is released
 * with http_reset. */
DL_EXPORT int http_connect(dl_http_conn *conn, const char *host, int port, const dl_url *proxy);

/* http_write writes all |len| bytes of |data| (nothing for |len| below 1).
 * Returns 0, or DL_ERR_SEND. Nothing to free. */
DL_EXPORT int http_write(dl_http_conn *conn, const void *data, int len);

/* http_reset shuts down and frees the session, context, socket, header
 * block and chunk buffer, and leaves |conn| zeroed but live (magic set,
 * flags cleared). Nothing is left to free. */
DL_EXPORT void http_reset(dl_http_conn *conn);

/* http_url_check parses |param|'s URL with its user and password, sets
 * DL_HTTP_TLS in |*flags| for https and stores |param|'s request type in
 * the record. Returns the record, or NULL on a parse error (|error| then
 * holds the code) or another scheme (|error| untouched). The caller frees
 * the record with dl_url_free. */
DL_EXPORT dl_url *http_url_check(uint32_t *flags, const dl_http_param *param, dl_error *error);

/* http_trace logs |len| bytes of |data| in pieces of 191 bytes when data
 * tracing is on. Nothing to free. */
DL_EXPORT void http_trace(const void *data, int len);

/* ===================================================================== */
/* HTTP response reading                                                  */
/* ===================================================================== */

/* http_recv reads once into |buf|. Returns the bytes read (0 at end of
 * stream), -1 for a NULL |buf| or a failed wait over TLS, DL_ERR_READ for
 * a failed wait on a plain socket or a missing session, or SSL_read's
 * negative result. Nothing to free. */
DL_EXPORT int http_recv(dl_http_conn *conn, void *buf, int len);

/* http_read_line reads one line by peeking, consuming nothing past its
 * CRLF, with a work buffer of |initial_size| growing up to |max_size|,
 * and copies it (CR replaced by a zero) into |out| of room |out_room|.
 * Returns its length, 0 when the stream ended first, the bytes copied
 * when it ended inside the line, or DL_ERR_READ or DL_ERR_NOMEM. Nothing
 * to free. */
DL_EXPORT int http_read_line(dl_http_conn *conn, int initial_size, int max_size, char *out,
                             int out_room);

/* http_read_status reads the status line and sets DL_HTTP_11 for minor
 * version 1 or more. Returns the status code, or a negative code
 * (DL_ERR_RECV for a line that does not parse). Nothing to free. */
DL_EXPORT int http_read_status(dl_http_conn *conn);

/* http_find_header returns the line of the header block |block| whose
 * name equals |name| (lower case), or NULL. The line belongs to the
 * block; do not free it. */
DL_EXPORT char *http_find_header(char *block, const char *name);

/* http_drain reads and discards the rest of the current body, then frees
 * the chunk buffer. Nothing is left to free. */
DL_EXPORT void http_drain(dl_http_conn *conn);

/* ===================================================================== */
/* HTTP open flow                                                         */
/* ===================================================================== */

/* http_handle_response reads responses after a request was sent,
 * following 301/302 (the record in |*url_slot| is replaced, the target
 * copied into |redirect_out|) and answering 401, reconnecting unless
 * |proxy_url| is set. Returns 0 (for 200), another HTTP status, or a
 * negative code. The caller frees |*url_slot| with dl_url_free. */
DL_EXPORT int http_handle_response(dl_http_conn *conn, dl_url **url_slot,
                                   const dl_url *proxy_url, dl_http_request *req,
                                   char *redirect_out);

/* http_auth_retry answers the 401 whose header block is |headers|,
 * reusing the connection when possible. Returns 0 once the new request is
 * out (or nothing was to be sent), or a negative code. Nothing to free. */
DL_EXPORT int http_auth_retry(dl_http_conn *conn, char *headers, dl_url *url,
                              dl_http_request *req);

/* ===================================================================== */
/* HTTP authentication                                                    */
/* ===================================================================== */
/* The authentication state, its digest state and scheme choice; their
 * layouts are private to the HTTP client. The caller zero-fills a state
 * before each use. Build results: 0 success, 2 scheme not handled, 27 out
 * of memory. */

typedef struct dl_http_auth dl_http_auth;
typedef struct dl_http_digest dl_http_digest;
typedef struct dl_http_auth_pick dl_http_auth_pick;

/* Curl_input_auth parses the challenge |value| of a www-authenticate
 * header (proxy-authenticate when |proxy| is nonzero) into |state|.
 * Returns DL_AUTH_FINE, or DL_AUTH_NONE (also for a NULL argument),
 * DL_AUTH_BAD, DL_AUTH_BADALGO or DL_AUTH_NOMEM. The digest texts belong
 * to |state|; free them with Curl_digest_cleanup_one. */
DL_EXPORT int Curl_input_auth(dl_http_auth *state, int proxy, const char *value);

/* Curl_output_auth builds the Basic or Digest authorization line
 * ("...\r\n") for the picked scheme, |method| and |uri| into |state|,
 * replacing the previous one. Returns 0, 2 when no scheme it handles was
 * picked or |state| is NULL, or 27 when memory runs out. |state| owns the
 * line; the caller frees it. */
DL_EXPORT int Curl_output_auth(dl_http_auth *state, int proxy, const char *method,
                               const char *uri);

/* Curl_output_digest builds the Digest authorization line into |state|;
 * without a nonce it builds nothing. Returns 0, 2 for a NULL argument, or
 * 27 when memory runs out. |state| owns the line; the caller frees it. */
DL_EXPORT int Curl_output_digest(dl_http_auth *state, int proxy, const char *method,
                                 const char *uri);

/* Curl_output_xsi_auth builds the BroadWorksSIP authorization line into
 * |state|. Returns 0, 2 when the picked scheme is not Basic or |state| is
 * NULL, or 27 for an empty encoding or no memory. |state| owns the line;
 * the caller frees it. */
DL_EXPORT int Curl_output_xsi_auth(dl_http_auth *state);

/* Curl_digest_cleanup_one frees the texts of |digest| and zeroes its nonce
 * count, algorithm and stale flag; a NULL |digest| is only logged. Nothing
 * is left to free. */
DL_EXPORT void Curl_digest_cleanup_one(dl_http_digest *digest);

/* get_all_qop_content widens an unquoted qop |value| (a 1024-byte buffer)
 * that was scanned for |key| from |rest| ("key=value...") to the whole
 * comma list that follows it there. Returns 0, or -1 for a NULL argument
 * or a |rest| that does not start with that key=value. Nothing to free. */
DL_EXPORT int get_all_qop_content(const char *rest, const char *key, char *value);

/* ===================================================================== */
/* FTP                                                                    */
/* ===================================================================== */

/* ftp_send_all sends all |len| bytes of |data| on |sock|, retrying on
 * EINTR (nothing for |len| below 1). Returns 0, or DL_ERR_SEND. Nothing to
 * free. */
DL_EXPORT int ftp_send_all(int sock, const void *data, int len);

/* ftp_read_reply reads control lines until a final reply ("ddd ") and
 * copies it into |reply| (room |reply_len|). Returns the reply code when
 * |expected| is 0 or matches, |fail_code| when it does not, or
 * DL_ERR_READ, DL_ERR_NOMEM or -1 (line longer than |reply|). Nothing to
 * free. */
DL_EXPORT int ftp_read_reply(dl_ftp_conn *conn, char *reply, int reply_len, int expected,
                             int fail_code);

/* ftp_command sends "|command| |argument|\r\n" ("|command|\r\n" for a
 * NULL |argument|) and reads the reply as ftp_read_reply does. Returns
 * what ftp_read_reply returns, or DL_ERR_SEND. Nothing to free. */
DL_EXPORT int ftp_command(dl_ftp_conn *conn, const char *command, const char *argument,
                          char *reply, int reply_len, int expected, int fail_code);

/* ftp_login sends USER (|user|, or "anonymous" when NULL or empty), PASS
 * when asked for, and TYPE I, using |reply| (512 bytes). Returns 0, or
 * DL_ERR_FTP_USER, DL_ERR_FTP_PASS, DL_ERR_FTP_REPLY or another negative
 * code. Nothing to free. */
DL_EXPORT int ftp_login(dl_ftp_conn *conn, const char *user, const char *password, char *reply);

/* ===================================================================== */
/* Certificate generation                                                 */
/* ===================================================================== */

struct X509_name_st;
struct X509_req_st;

/* do_subject parses |subject| ("/type=value/..." with backslash escapes)
 * into a new name whose values are added as |chtype| strings; unknown
 * types and empty values are skipped. Returns the name, or NULL on a
 * malformed string or failure. The caller frees it with X509_NAME_free. */
DL_EXPORT struct X509_name_st *do_subject(const char *subject, unsigned long chtype);

/* build_subject sets the subject of |req| from |subject|. Returns 1, or 0
 * on failure. Nothing to free. */
DL_EXPORT int build_subject(struct X509_req_st *req, const char *subject, unsigned long chtype);

/* make_REQ sets version 0, the subject |subject| and the public key of
 * |key| on |req|; |unused| is ignored. Returns 1, or 0 on failure.
 * Nothing to free. */
DL_EXPORT int make_REQ(struct X509_req_st *req, struct evp_pkey_st *key, const char *subject,
                       int unused, unsigned long chtype);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* QUARRY_INTERNAL_H */
