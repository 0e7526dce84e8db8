/* What the server and its clients say to each other, in typed buffers.
 *
 *   request   kRequestMark, the client's process identifier, the query as a string
 *   answer    kAnswerMark, a result; then,
 *             if that is 0, the number of packages, and for each of them its name, version,
 *             section and summary as strings and its size,
 *             else a message as a string
 *
 * A request is sent at once and is short enough for the platform to keep it in one piece among
 * those of other clients: when its first byte has arrived, all of it has. Both ends are one program
 * on one machine: the order of bytes is the machine's. */
#include <string.h>

#include "pkgdb.h"

enum { kRequestMark = 0x71676b70, kAnswerMark = 0x61676b70, kMostPackages = 1 << 24 };

char *request_pipe(const char *folder, psp_tag *tag) {
  return data_path(folder, "pkgdb.pipe", tag);
}

char *reply_pipe(const char *folder, int32_t client, psp_tag *tag) {
  return psp_makeStr(tag, "%s\\reply-%d.pipe", folder, client);
}

/* Puts or gets one value after the other until one fails. */
static void then_put_int(psp_status *status, psp_outputBuff *out, int32_t value) {
  if (*status == PSP_OKAY) *status = psp_outputBuffPutInt32(out, value);
}
static void then_put_string(psp_status *status, psp_outputBuff *out, const char *text) {
  if (*status == PSP_OKAY) *status = psp_outputBuffPutStringWithLength(out, text);
}
static void then_get_int(psp_status *status, psp_inputBuff *in, int32_t *value) {
  if (*status == PSP_OKAY) *status = psp_inputBuffGetInt32(in, value);
}

/* ---- Requests -------------------------------------------------------------------------------- */

psp_status put_request(psp_outputBuff *out, const char *query) {
  psp_status status = PSP_OKAY;
  then_put_int(&status, out, kRequestMark);
  then_put_int(&status, out, psp_get_pid());
  then_put_string(&status, out, query);
  return status == PSP_OKAY ? psp_outputBuffFlush(out) : status;
}

/* Finds the next mark, and tells whether bytes stood before it that are no request. */
static psp_status find_mark(psp_inputBuff *in, uint32_t milliseconds, int *has_rubbish) {
  int32_t mark = 0;
  char *bytes = (char *)&mark;
  psp_status status = psp_inputBuffGetInt32Timeout(in, &mark, milliseconds);
  while (status == PSP_OKAY && mark != kRequestMark) {
    *has_rubbish = 1;
    memmove(bytes, bytes + 1, sizeof mark - 1);
    status = psp_inputBuffGetChar(in, &bytes[sizeof mark - 1]);
  }
  return status;
}

/* The transport waits for nothing that belongs to a request: what is not there at once never will
 * be, and the next mark starts the next request. */
psp_status get_request(psp_inputBuff *in, uint32_t milliseconds, Request *request) {
  request->has_rubbish = 0;
  psp_status status = find_mark(in, milliseconds, &request->has_rubbish);
  if (status != PSP_OKAY) return status;
  then_get_int(&status, in, &request->client);
  if (status == PSP_OKAY) {
    status = psp_inputBuffGetStringWithLength(in, request->query, sizeof request->query);
  }
  if (status == PSP_OKAY) return PSP_OKAY;
  request->has_rubbish = 1;
  return status == PSP_ERR_TRUNCATED ? PSP_TIMEOUT : status;
}

/* ---- Answers --------------------------------------------------------------------------------- */

static void put_package(psp_status *status, psp_outputBuff *out, const Package *package) {
  then_put_string(status, out, package->name);
  then_put_string(status, out, package->version);
  then_put_string(status, out, package->section);
  then_put_string(status, out, package->summary);
  then_put_int(status, out, (int32_t)package->kib);
}

psp_status put_answer(psp_outputBuff *out, const Answer *answer) {
  psp_status status = PSP_OKAY;
  then_put_int(&status, out, kAnswerMark);
  then_put_int(&status, out, answer->result);
  if (answer->result != 0) {
    then_put_string(&status, out, answer->message);
  } else {
    then_put_int(&status, out, (int32_t)answer->count);
    for (uint32_t i = 0; i < answer->count; ++i) put_package(&status, out, answer->packages[i]);
  }
  return status == PSP_OKAY ? psp_outputBuffFlush(out) : status;
}

/* Strings arrive in the default tag, and move to the one that goes with the answer. */
static void get_string(psp_status *status, psp_inputBuff *in, psp_tag *tag, const char **text) {
  char *arrived = NULL;
  if (*status == PSP_OKAY) *status = psp_inputBuffGetString(in, &arrived);
  psp_moveMemTag(arrived, tag, NULL);
  *text = arrived;
}

static psp_status get_package(psp_inputBuff *in, psp_tag *tag, const Package **got) {
  Package *package = psp_allocZero(sizeof *package, tag);
  if (package == NULL) return PSP_ERR_NOMEMORY;
  psp_status status = PSP_OKAY;
  int32_t kib = 0;
  get_string(&status, in, tag, &package->name);
  get_string(&status, in, tag, &package->version);
  get_string(&status, in, tag, &package->section);
  get_string(&status, in, tag, &package->summary);
  then_get_int(&status, in, &kib);
  package->kib = (uint32_t)kib;
  *got = package;
  return status == PSP_OKAY && package->name == NULL ? PSP_FAILED : status;
}

static psp_status get_packages(psp_inputBuff *in, psp_tag *tag, Answer *answer) {
  int32_t count = 0;
  psp_status status = psp_inputBuffGetInt32(in, &count);
  if (status != PSP_OKAY) return status;
  if (count < 0 || count > kMostPackages) return PSP_FAILED;
  if (count == 0) return PSP_OKAY; /* a block of no bytes would be null, as after a failure */
  answer->packages = psp_alloc((size_t)count * sizeof *answer->packages, tag);
  if (answer->packages == NULL) return PSP_ERR_NOMEMORY;
  while (status == PSP_OKAY && answer->count < (uint32_t)count) {
    status = get_package(in, tag, &answer->packages[answer->count]);
    if (status == PSP_OKAY) ++answer->count;
  }
  return status;
}

psp_status get_answer(psp_inputBuff *in, psp_tag *tag, Answer *answer) {
  int32_t mark = 0, result = 0;
  psp_status status = PSP_OKAY;
  *answer = (Answer){0};
  then_get_int(&status, in, &mark);
  then_get_int(&status, in, &result);
  if (status != PSP_OKAY) return status;
  if (mark != kAnswerMark) return PSP_FAILED;
  answer->result = result;
  if (result == 0) return get_packages(in, tag, answer);
  return psp_inputBuffGetStringWithLength(in, answer->message, sizeof answer->message);
}
