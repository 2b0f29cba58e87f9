/* A C11 program against the installed headers and libraries. */
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
  int status = sysenv_destroy(&env);
  if (status != 0 || env != NULL || strcmp(seen, "installed 42") != 0) return 2;
  puts("consumer: ok");
  return 0;
}
