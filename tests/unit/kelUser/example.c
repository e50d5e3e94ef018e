#include <kel-user.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  struct kel_user* handle;
  struct kel_user_counters counters;
  struct kel_user_arg args[2];
  int status;

  if (argc != 3) return 2;
  status = kel_user_open(200, &handle);
  if (status != 0) return 1;
  args[0] = kel_user_string(argv[2]);
  args[1] = kel_user_int32(3);
  status = kel_user_emit(handle, argv[1], "backup of %s failed %d times", args, 2);
  if (status != 0) fprintf(stderr, "not reported: %s\n", strerror(status));
  kel_user_counts(handle, &counters);
  printf("%llu sent, %llu dropped\n", (unsigned long long)counters.sent, (unsigned long long)counters.dropped);
  kel_user_close(handle);
  return status != 0;
}
