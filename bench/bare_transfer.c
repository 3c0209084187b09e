/* What libcurl alone costs here: bare_transfer URL CA_FILE starts it with eight handles, makes one TLS transfer and waits for
 * its standard input to end, so that its memory can be compared with the daemon's. */
#include <stdio.h>

#include <curl/curl.h>

static size_t ignore(const char *data, size_t size, size_t count, void *user) {
    (void)data;
    (void)user;
    return size * count;
}

int main(int argc, char **argv) {
    CURL *handles[8];
    int running = 1;
    if (argc != 3)
        return 2;
    curl_global_init(CURL_GLOBAL_ALL);
    CURLM *multi = curl_multi_init();
    for (int i = 0; i < 8; i++)
        handles[i] = curl_easy_init();
    curl_easy_setopt(handles[0], CURLOPT_URL, argv[1]);
    curl_easy_setopt(handles[0], CURLOPT_CAINFO, argv[2]);
    curl_easy_setopt(handles[0], CURLOPT_POSTFIELDS, "{}");
    curl_easy_setopt(handles[0], CURLOPT_WRITEFUNCTION, ignore);
    curl_multi_add_handle(multi, handles[0]);
    while (running && curl_multi_perform(multi, &running) == CURLM_OK)
        curl_multi_poll(multi, NULL, 0, 1000, NULL);
    long status = 0;
    curl_easy_getinfo(handles[0], CURLINFO_RESPONSE_CODE, &status);
    printf("%ld\n", status);
    fflush(stdout);
    getchar();
    return 0;
}
