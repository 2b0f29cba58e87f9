/* What Windows itself answers, for the host block test to derive the
 * expected lines from, without hostkit: one line per fact.
 *   acp N                      the ANSI code page
 *   name HEX                   gethostname's bytes
 *   gaa STATUS                 GetAdaptersAddresses, flags 0x2F, then for each adapter:
 *   adapter LENGTH HEX DESC    its physical address and its description in UTF-8
 *   lanas RC N                 Netbios enumeration, then for each LAN adapter:
 *   lana NUM RESET STATUS HEX  the return codes of reset and adapter status, and
 *                              the status's first six bytes */
// winsock2.h before windows.h, and both before the others.
// clang-format off
#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <nb30.h>
// clang-format on
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void hex(const char* before, const unsigned char* bytes, unsigned long n) {
  printf("%s", before);
  for (unsigned long i = 0; i < n; ++i) printf("%02x", bytes[i]);
}

static UCHAR netbios(UCHAR command, UCHAR lana, const char* name, void* buffer, WORD length) {
  NCB ncb = {
      .ncb_command = command, .ncb_lana_num = lana, .ncb_buffer = buffer, .ncb_length = length};
  if (name != NULL) memcpy(ncb.ncb_callname, name, NCBNAMSZ);
  return Netbios(&ncb);
}

int main(void) {
  WSADATA data;
  char name[1024] = "";
  WSAStartup(MAKEWORD(2, 2), &data);
  printf("acp %u\n", GetACP());
  if (gethostname(name, sizeof name) != 0) name[0] = '\0';
  hex("name ", (const unsigned char*)name, (unsigned long)strlen(name));

  ULONG size = 0;
  ULONG status = GetAdaptersAddresses(AF_UNSPEC, 0x2F, NULL, NULL, &size);
  IP_ADAPTER_ADDRESSES* list = size > 0 ? malloc(size) : NULL;
  if (list != NULL) status = GetAdaptersAddresses(AF_UNSPEC, 0x2F, NULL, list, &size);
  printf("\ngaa %lu\n", status);
  for (IP_ADAPTER_ADDRESSES* a = status == 0 ? list : NULL; a != NULL; a = a->Next) {
    char description[512] = "";
    WideCharToMultiByte(CP_UTF8, 0, a->Description, -1, description, sizeof description, 0, 0);
    printf("adapter %lu ", a->PhysicalAddressLength);
    hex("", a->PhysicalAddress, a->PhysicalAddressLength);
    printf(" %s\n", description);
  }

  LANA_ENUM lanas = {0};
  UCHAR rc = netbios(NCBENUM, 0, NULL, &lanas, sizeof lanas);
  printf("lanas %u %u\n", rc, rc == 0 ? lanas.length : 0);
  for (int i = 0; rc == 0 && i < lanas.length; ++i) {
    unsigned char adapter[600] = {0};
    UCHAR reset = netbios(NCBRESET, lanas.lana[i], NULL, NULL, 0);
    UCHAR state = netbios(NCBASTAT, lanas.lana[i], "*               ", adapter, sizeof adapter);
    printf("lana %u %u %u ", lanas.lana[i], reset, state);
    hex("", adapter, 6);
    printf("\n");
  }
  return 0;
}
