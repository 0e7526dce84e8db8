/* The server, which answers queries from a named pipe.
 *
 * serve runs as a service if the system's manager started it, else in the foreground until an
 * interrupt. Either way a flag, set by another thread, tells it to stop; it looks at the flag
 * between two requests. Requests come by the pipe pkgdb.pipe of the data folder; an answer goes to
 * the pipe that its client has made, reply-NUMBER.pipe. */
#include <string.h>

#include "pkgdb.h"

/* In milliseconds. A client that does not take its answer must not use up the others' patience. */
enum {
  kPause = 200, /* between two looks at the flag */
  kPatience = 1000
};

static const char kServiceName[] = "pkgdb";
static const char kLockFile[] = "pkgdb.lock";

/* Set by a thread of the library's own, as a service or in the handler, which has no argument. An
 * atomic word looks like a plain one to the library. */
static _Atomic uint16_t stop_flag;
static void on_interrupt(void) { stop_flag = 1; }

typedef struct {
  const Settings *settings;
  char *input; /* the records' file */
  Catalog catalog;
  int64_t changed; /* when the records' file was changed that the catalog was made from */
  int64_t loaded;  /* when that was read */
  Pipe requests;
  psp_inputBuff *in;
  uint32_t answered;
} Server;

static int load(Server *server) {
  int64_t changed = psp_fileModTimeStat(server->input, 0), loaded = psp_timeSecs();
  int result = load_catalog(&server->catalog, server->input);
  if (result != 0) return result;
  server->changed = changed;
  server->loaded = loaded;
  psp_log("%u packages read from %s\n", server->catalog.count, server->input);
  return 0;
}

/* Reads the records again if their file has changed; a reading that fails leaves what was there,
 * and the next request tries again. A file changed in the very second in which it was read may have
 * changed afterwards: its time cannot tell. */
static void refresh(Server *server) {
  int64_t changed = psp_fileModTimeStat(server->input, 0);
  if (changed == server->changed && changed != server->loaded) return;
  Catalog before = server->catalog;
  if (load(server) == 0) {
    end_catalog(&before);
  } else {
    end_catalog(&server->catalog);
    server->catalog = before;
  }
}

static psp_status send_answer(Server *server, const Answer *answer, int32_t client, psp_tag *tag) {
  char *path = reply_pipe(server->settings->folder, client, tag);
  Pipe reply;
  if (path == NULL || !open_for_writing(&reply, path, kPatience)) return PSP_FAILED;
  psp_outputBuff *out = NULL;
  psp_status status = psp_outputBuffCreate(write_pipe, &reply, 0, &out);
  if (status == PSP_OKAY) status = put_answer(out, answer);
  psp_outputBuffDestroy(out);
  close_pipe(&reply);
  return status;
}

static void log_answer(const Answer *answer, Request *request) {
  make_one_line(request->query);
  if (answer->result != 0) {
    psp_log("%d asked: %s: %s\n", request->client, request->query, answer->message);
  } else {
    psp_log("%d asked: %s: %u package%s\n", request->client, request->query, answer->count,
            answer->count == 1 ? "" : "s");
  }
}

/* Everything that a request needs goes with its tag, whatever happened. */
static void serve_request(Server *server, Request *request) {
  psp_tag *tag = make_tag();
  if (tag == PSP_TAG_FAILED) return;
  Answer answer;
  refresh(server);
  answer_query(request->query, &server->catalog, tag, &answer);
  if (send_answer(server, &answer, request->client, tag) == PSP_OKAY) {
    ++server->answered;
    log_answer(&answer, request);
  } else {
    psp_log_err("%d asked, but does not get the answer: gone, asleep, or memory is short\n",
                request->client);
  }
  psp_freeTagMemory(tag, 1);
}

static int serve_requests(Server *server) {
  Request request;
  while (!stop_flag) {
    psp_status status = get_request(server->in, kPause, &request);
    if (request.has_rubbish) psp_log_err("something that is no request was dropped\n");
    if (status == PSP_OKAY) {
      serve_request(server, &request);
    } else if (status != PSP_TIMEOUT) {
      return file_failed("the requests", "cannot be read on", kFailed);
    }
  }
  return 0;
}

static int open_requests(Server *server) {
  char *path = request_pipe(server->settings->folder, NULL);
  int result = path != NULL ? make_pipe(path) : kFailed;
  if (result == 0 && !open_for_reading(&server->requests, path, 0)) {
    result = file_failed(path, "cannot be opened", kFailed);
  }
  if (result == 0 && psp_inputBuffCreate(read_pipe, read_pipe_timed, &server->requests, 0,
                                         &server->in) != PSP_OKAY) {
    result = kFailed;
  }
  psp_freeMem(path, NULL);
  return result;
}

/* Clients that were killed have left their pipes. */
static void remove_lost_replies(const char *folder) {
  psp_pathIter *names = psp_pathOpen(folder, "reply-*.pipe");
  const char *name;
  uint32_t is_folder;
  while (names != NULL && (name = psp_pathNext(names, &is_folder)) != NULL) {
    char *path = data_path(folder, name, NULL);
    if (path != NULL && is_lost_pipe(path)) psp_fileRemove(path);
    psp_freeMem(path, NULL);
  }
  if (names != NULL) psp_pathClose(names);
}

/* What a service must do: say that it has started, look at its flag, say that it is done. */
static int32_t run(psp_word settings, psp_word unused) {
  Server server = {.settings = (const Settings *)settings, .requests = {.descriptor = -1}};
  (void)unused;
  server.input = data_path(server.settings->folder, server.settings->value[kInputFile], NULL);
  int result = server.input != NULL ? load(&server) : kFailed;
  if (result == 0) result = open_requests(&server);
  remove_lost_replies(server.settings->folder);
  psp_serviceStarted();
  if (result == 0) {
    psp_log("serving until interrupted\n");
    result = serve_requests(&server);
    psp_log("%u queries answered\n", server.answered);
  }
  psp_serviceDone();
  psp_inputBuffDestroy(server.in);
  close_pipe(&server.requests);
  if (server.input != NULL) end_catalog(&server.catalog);
  psp_freeMem(server.input, NULL);
  return result;
}

/* A file that is held open and that no second server may write to. It comes before the log, which
 * would lose what the first server has written. */
static PSP_FH lock_folder(const char *folder) {
  char *path = data_path(folder, kLockFile, NULL);
  PSP_FH file = NULL;
  if (path != NULL) {
    file = psp_fileOpen(path, PSP_OPEN_WRITE | PSP_OPEN_CREATE, PSP_FILE_DENY_WRITE);
    if (file == NULL) file_failed(path, "cannot be locked", kFailed);
  }
  psp_freeMem(path, NULL);
  return file;
}

int serve(Settings *settings) {
  PSP_FH lock = lock_folder(settings->folder);
  if (lock == NULL) return kFailed;
  int result = open_log(settings, kServeLog);
  if (result == 0 && psp_handleInterrupt(on_interrupt) != PSP_OKAY) {
    psp_log_err("interrupts cannot be handled\n");
    result = kFailed;
  }
  if (result == 0) {
    result = psp_serviceStart(kServiceName, (uint16_t *)&stop_flag, (psp_word)settings, 0, run);
    psp_handleInterrupt(NULL);
  }
  psp_log_close();
  psp_fileClose(lock);
  return result;
}

/* The manager starts programs in a folder of its own: names have to be whole. */
static char *whole_name(const char *name) {
  if (psp_pathIsFullyQualified(name)) return psp_strdup(name, NULL);
  char *folder = psp_currdir();
  char *whole = folder != NULL ? psp_makeString("%s/%s", folder, name) : NULL;
  psp_freeMem(folder, NULL);
  return whole;
}

int install_service(const char *folder, const char *program) {
  char *path = whole_name(program), *data = whole_name(folder);
  char *arguments = data != NULL ? psp_makeString("--data \"%s\" serve", data) : NULL;
  psp_status status = PSP_FAILED;
  if (path != NULL && arguments != NULL) {
    status = psp_serviceInstall(kServiceName, kServiceName, "pkgdb", "Answers queries for packages",
                                path, arguments);
  }
  psp_freeMem(arguments, NULL);
  psp_freeMem(data, NULL);
  psp_freeMem(path, NULL);
  if (status == PSP_OKAY) return 0;
  psp_log_err("the service cannot be installed%s\n",
              status == PSP_NOACCESS ? ": you may not manage services" : "");
  return kFailed;
}

int uninstall_service(void) {
  psp_status status = psp_serviceUninstall(kServiceName, kServiceName);
  if (status == PSP_OKAY) return 0;
  psp_log_err("the service cannot be removed%s\n", status == PSP_NOSERVICE ? ": it is not installed"
                                                   : status == PSP_NOACCESS
                                                       ? ": you may not manage services"
                                                       : "");
  return kFailed;
}
