/* The client: sends a query to the server of a data folder, and prints the answer.
 *
 * It makes a pipe of its own for the answer, and opens it before the request goes out: the server
 * finds a reader there, or a client that has gone meanwhile. */
#include <string.h>

#include "pkgdb.h"

enum { kPatience = 5000 }; /* milliseconds */

static psp_status exchange(Pipe *requests, Pipe *reply, const char *query, psp_tag *tag,
                           Answer *answer) {
  psp_outputBuff *out = NULL;
  psp_inputBuff *in = NULL;
  psp_status status = psp_outputBuffCreate(write_pipe, requests, 0, &out);
  if (status == PSP_OKAY) status = psp_inputBuffCreate(read_pipe, NULL, reply, 0, &in);
  if (status == PSP_OKAY) status = put_request(out, query);
  if (status == PSP_OKAY) status = get_answer(in, tag, answer);
  psp_inputBuffDestroy(in);
  psp_outputBuffDestroy(out);
  return status;
}

static int ask_by(Pipe *requests, Pipe *reply, const char *query, psp_tag *tag) {
  Answer answer;
  psp_status status = exchange(requests, reply, query, tag, &answer);
  if (status == PSP_OKAY) return print_answer(&answer);
  if (status == PSP_ERR_NOMEMORY) return kFailed; /* the library has logged it */
  psp_log_err("the server gives no answer%s\n", status == PSP_TIMEOUT ? " in time" : "");
  return kNoServer;
}

static int ask_in_tag(const char *folder, const char *query, psp_tag *tag) {
  char *request_path = request_pipe(folder, tag);
  char *reply_path = reply_pipe(folder, psp_get_pid(), tag);
  Pipe requests, reply;
  if (request_path == NULL || reply_path == NULL) return kFailed;
  if (!open_for_writing(&requests, request_path, kPatience)) {
    return file_failed(request_path, "no server reads it", kNoServer);
  }
  int result = make_pipe(reply_path);
  if (result == 0 && !open_for_reading(&reply, reply_path, kPatience)) {
    result = file_failed(reply_path, "cannot be opened", kFailed);
  } else if (result == 0) {
    result = ask_by(&requests, &reply, query, tag);
    close_pipe(&reply);
    psp_fileRemove(reply_path);
  }
  close_pipe(&requests);
  return result;
}

int ask(const char *folder, const char *query) {
  if (strlen(query) > kMostQueryBytes) {
    psp_log_err("query:1:1: a query has at most %d bytes\n", kMostQueryBytes);
    return kBadQuery;
  }
  psp_tag *tag = make_tag();
  if (tag == PSP_TAG_FAILED) return kFailed;
  int result = ask_in_tag(folder, query, tag);
  psp_freeTagMemory(tag, 1);
  return result;
}
