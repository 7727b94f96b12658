/* What zan_restore is measured beside: the same system calls, the same bytes
 * out, and nothing else. bare set-up FILE NTPATH | ping FILE | progress FILE */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include "zan_restore_filter.h"

static void say(const char *text) {
  if (write(1, text, strlen(text)) < 0) exit(1);
}

static int set_up(const char *file, const char *path) {
  RestoreTagRecord record;
  char text[4096];
  memset(&record, 0, sizeof(record));
  close(open(file, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  snprintf(text, sizeof(text), "%s:" RESTORE_TAG_STREAM_NAME_A, file);
  int stream = open(text, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  for (size_t i = 0; path[i] != 0; ++i) record.path[i] = (unsigned char)path[i];
  if (write(stream, &record, sizeof(record)) != sizeof(record)) return 1;
  struct stat status;
  fstat(1, &status);
  snprintf(text, sizeof(text), "create tag stream: %s\n", path);
  say(text);
  close(stream);
  return 0;
}

/* Reads a file of /proc as the tool does, to its end. */
static void read_whole(const char *path, char *content, size_t size) {
  int file = open(path, O_RDONLY | O_CLOEXEC);
  ssize_t count;
  size_t used = 0;
  while ((count = read(file, content + used, size - used - 1)) > 0) used += (size_t)count;
  content[used] = 0;
  close(file);
}

/* The id and the device of the mount in a line of a mount table. */
static unsigned long mount_in(const char *line, unsigned long *id) {
  char *end;
  *id = strtoul(line, &end, 10);
  strtoul(end, &end, 10);
  const unsigned major = (unsigned)strtoul(end, &end, 10);
  return makedev(major, (unsigned)strtoul(end + 1, &end, 10));
}

static unsigned long device_of(const char *table, unsigned long long wanted) {
  for (const char *line = table; *line != 0; line = strchr(line, '\n') + 1) {
    unsigned long id;
    const unsigned long device = mount_in(line, &id);
    if (id == wanted) return device;
  }
  exit(1);
}

/* The tool goes through the volumes and asks each for its device, until one is
 * the filter's. */
static void find_volume(const char *table, unsigned long wanted) {
  char wanted_name[64];
  snprintf(wanted_name, sizeof(wanted_name), "\\Device\\HarddiskVolume%lu", wanted);
  for (const char *line = table; *line != 0; line = strchr(line, '\n') + 1) {
    char volume[64];
    char name[64];
    unsigned long id;
    const unsigned long device = mount_in(line, &id);
    snprintf(volume, sizeof(volume), "\\\\?\\Volume{00000000-0000-0000-0000-%012lx}\\", device);
    snprintf(name, sizeof(name), "\\Device\\HarddiskVolume%lu", device);
    if (strcmp(name, wanted_name) == 0) return;
  }
  exit(1);
}

static void exchange(int port, void *packet, size_t size, void *answer, size_t room) {
  struct iovec parts[1] = {{packet, size}};
  struct msghdr message = {.msg_iov = parts, .msg_iovlen = 1};
  if (sendmsg(port, &message, MSG_NOSIGNAL) < 0) exit(1);
  parts[0].iov_base = answer;
  parts[0].iov_len = room;
  if (recvmsg(port, &message, 0) < 4) exit(1);
}

static int send_to_filter(const char *path, int is_query) {
  static char table[1 << 20];
  char text[256];
  int file = open(path, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  struct stat status;
  fstat(file, &status);
  struct statx where;
  unsigned long device = 0;
  for (int i = 0; i < 2; ++i) {
    statx(AT_FDCWD, i == 0 ? path : "/", 0, STATX_MNT_ID, &where);
    read_whole("/proc/self/mountinfo", table, sizeof(table));
    const unsigned long found = device_of(table, where.stx_mnt_id);
    if (i == 0) device = found;
  }
  if (!is_query) {
    struct stat output;
    fstat(1, &output);
    snprintf(text, sizeof(text), "volume is: Volume{00000000-0000-0000-0000-%012lx}\n", device);
    say(text);
  }
  read_whole("/proc/net/unix", table, sizeof(table));
  if (strstr(table, "zan_restore_filter") == NULL) return 1;
  read_whole("/proc/self/mountinfo", table, sizeof(table));
  find_volume(table, device);
  if (!is_query) {
    snprintf(text, sizeof(text),
             "checking instance for volume: Volume{00000000-0000-0000-0000-%012lx} - "
             "\\Device\\HarddiskVolume%lu\n",
             device, device);
    say(text);
  }
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  const int length =
      snprintf(address.sun_path + 1, sizeof(address.sun_path) - 1,
               "\\zan_restore_filter-Volume{00000000-0000-0000-0000-%012lx}", device);
  int port = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (connect(port, (struct sockaddr *)&address,
              (socklen_t)(offsetof(struct sockaddr_un, sun_path) + 1 + (size_t)length)) != 0) {
    return 1;
  }
  char context[RESTORE_FILTER_CONNECTION_CONTEXT_SIZE] = {0};
  struct {
    uint32_t result;
    ProgressInfo progress;
  } __attribute__((packed)) answer = {0};
  exchange(port, context, sizeof(context), &answer, 4);
  if (!is_query) {
    snprintf(text, sizeof(text), "sending to instance to port: %s\n", address.sun_path + 1);
    say(text);
  }
  struct {
    uint32_t room;
    ControlMessage message;
  } __attribute__((packed))
  packet = {is_query ? 16 : 0, {(uint64_t)file, {is_query ? 3 : 0, {0, 0}}, 0}};
  exchange(port, &packet, sizeof(packet), &answer, sizeof(answer));
  close(file);
  close(port);
  if (is_query) {
    struct stat output;
    fstat(1, &output);
    snprintf(text, sizeof(text), "progress: 0x%llx of 0x%llx\n",
             (unsigned long long)answer.progress.progress,
             (unsigned long long)answer.progress.total);
    say(text);
  }
  return (int)answer.result;
}

int main(int argc, char **argv) {
  struct pollfd standard[3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
  if (argc < 3 || poll(standard, 3, 0) < 0) return 1;
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  if (strcmp(argv[1], "set-up") == 0) return set_up(argv[2], argv[3]);
  return send_to_filter(argv[2], strcmp(argv[1], "progress") == 0);
}
