/* What zan_restore is compared with. `bare FILE NTPATH` makes the same system calls with the same
 * arguments, writes the same bytes, and does nothing else. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "zan_restore_filter.h"

int main(int argc, char **argv) {
  const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
  const uint8_t guid[] = RESTORE_TAG_GUID;
  struct pollfd standard[3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
  struct stat status;
  char text[4096];
  if (argc != 3 || poll(standard, 3, 0) < 0) return 1;
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);

  RestoreTagRecord record = {.tag = RESTORE_TAG,
                             .dataLength = RESTORE_TAG_DATA_LENGTH,
                             .pathOffset = RESTORE_TAG_PATH_OFFSET,
                             .pathLength = (uint16_t)(2 * strlen(argv[2])),
                             .strategy = {RestoreStrategyKind_simple, 4}};
  memcpy(record.guid, guid, sizeof(guid));
  for (size_t i = 0; argv[2][i] != 0; ++i) record.path[i] = (unsigned char)argv[2][i];

  int file = open(argv[1], flags, 0666);
  fstat(file, &status);
  close(file);
  snprintf(text, sizeof(text), "%s:" RESTORE_TAG_STREAM_NAME_A, argv[1]);
  file = open(text, flags, 0644);
  fstat(file, &status);
  if (write(file, &record, sizeof(record)) != sizeof(record)) return 1;
  fstat(1, &status);
  int length = snprintf(text, sizeof(text), "create tag stream: %s\n", argv[2]);
  if (write(1, text, (size_t)length) != length) return 1;
  close(file);
  return 0;
}
