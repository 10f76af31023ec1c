/* One download through libcurl, initialisation included, for comparison
 * with fetch_quarry.  fetch_curl URL FILE */
#include <curl/curl.h>
#include <stdio.h>

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  FILE *f = fopen(argv[2], "wb");
  if (f == NULL) return 1;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL *curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, argv[1]);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, f);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  CURLcode rc = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  curl_global_cleanup();
  if (fclose(f) != 0) return 1;
  if (rc != CURLE_OK) fprintf(stderr, "%s\n", curl_easy_strerror(rc));
  return rc != CURLE_OK;
}
