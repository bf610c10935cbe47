/* The update library in plain C, through its DLL, as other languages bind it: settles what an update has
 * left, and prints which release is installed. Usage: TalvexSettle.exe [CLIENT_DIR] */
#include <stdio.h>
#include <windows.h>

#include <talvex_update.h>
#include "trusted_keys.h"

static void TALVEX_CALL print_line(void* context, const wchar_t* line) {
  (void)context;
  printf("%ls\n", line);
}

int wmain(int count, wchar_t** arguments) {
  const talvex_key key = {kTrustedKey, sizeof(kTrustedKey)};
  talvex_options options = {0};
  talvex_release release = {0};
  talvex_client* client = NULL;
  int32_t start = 0;

  options.struct_size = sizeof(options);
  options.keys = &key;
  options.key_count = 1;
  options.client_directory = count > 1 ? arguments[1] : NULL;
  options.log = print_line;
  release.struct_size = sizeof(release);

  if (talvex_open(&options, &client) != TALVEX_OK || talvex_settle(client, &start) != TALVEX_OK) {
    wchar_t sentence[512] = L"";
    const talvex_result code = talvex_last_error(client, sentence, 512);
    printf("error %d: %ls\n", (int)code, sentence);
    return 1;
  }
  if (start == TALVEX_START_EXIT) {
    return 0; /* a helper restores the previous release and waits for this process to end */
  }
  if (talvex_installed(client, &release) == TALVEX_OK) {
    printf("installed: %ls, sequence %llu\n", release.name, (unsigned long long)release.sequence);
  }
  talvex_confirm(client);
  talvex_close(client);
  return start == TALVEX_START_REPAIR;
}
