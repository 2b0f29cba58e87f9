/* Reads the version resource of a Windows program through the interface
 * Explorer uses, and prints its fields as NAME=VALUE lines. */
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

int main(int argc, char** argv) {
  static const char* const names[] = {"ProductName",     "ProductVersion", "FileVersion",
                                      "FileDescription", "LegalCopyright", "OriginalFilename"};
  DWORD ignored = 0;
  DWORD size = argc == 2 ? GetFileVersionInfoSizeA(argv[1], &ignored) : 0;
  void* data = size != 0 ? malloc(size) : NULL;
  if (data == NULL || !GetFileVersionInfoA(argv[1], 0, size, data)) {
    fprintf(stderr, "version_probe: no version resource in %s\n", argc == 2 ? argv[1] : "?");
    return 1;
  }
  VS_FIXEDFILEINFO* fixed = NULL;
  UINT length = 0;
  if (VerQueryValueA(data, "\\", (void**)&fixed, &length) && length >= sizeof *fixed) {
    printf("Fixed=%u.%u.%u.%u\n", (unsigned)HIWORD(fixed->dwFileVersionMS),
           (unsigned)LOWORD(fixed->dwFileVersionMS), (unsigned)HIWORD(fixed->dwFileVersionLS),
           (unsigned)LOWORD(fixed->dwFileVersionLS));
  }
  for (size_t i = 0; i < sizeof names / sizeof names[0]; ++i) {
    char path[64];
    char* value = NULL;
    snprintf(path, sizeof path, "\\StringFileInfo\\040904B0\\%s", names[i]);
    if (VerQueryValueA(data, path, (void**)&value, &length)) printf("%s=%s\n", names[i], value);
  }
  free(data);
  return 0;
}
