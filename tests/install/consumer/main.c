/* A C11 program against the installed headers and libraries: a message
 * stream round trip, then the report's three counts and host name line in the
 * report's own format, for the test to find in the installed tool's report. */
#include <hostkit/cpub.h>
#include <hostkit/cpuinfo.h>
#include <hostkit/hostid.h>
#include <stdio.h>
#include <string.h>

static char seen[64];

static void collect(void* handle, const char* text) {
  (void)handle;
  strncat(seen, text, sizeof seen - strlen(seen) - 1);
}

int main(void) {
  SysEnv* env = sysenv_create(0, 0, NULL, NULL, NULL, NULL, NULL);
  if (env == NULL) return 1;
  sysenv_set_stream(env, 0, NULL, collect);
  char* text = memman_strdup(__FILE__, __LINE__, env->memory, "installed");
  sysenv_printf(env, "%s %d", text, 42);
  sysenv_free(env, __FILE__, __LINE__, text);
  if (strcmp(seen, "installed 42") != 0) return 2;

  uint32_t logical = 0, cores = 0, sockets = 0;
  cpuinfo_count_cores(env, &logical, &cores, &sockets, 0);
  printf("Logical CPUs = %d\nCPU Cores    = %d\nCPU sockets  = %d\n", (int)logical, (int)cores,
         (int)sockets);

  HostIdContext* context = NULL;
  char name[HOSTID_QUERY_BUFFER_SIZE] = "";
  if (hostid_context_open(&context) != 0) return 3;
  hostid_query(context, HOSTID_TYPE_HOSTNAME, name);
  hostid_context_close(context);
  printf("%-*s : %s\n", 30, "Hostname", name);

  if (sysenv_destroy(&env) != 0 || env != NULL) return 4;
  puts("consumer: ok");
  return 0;
}
