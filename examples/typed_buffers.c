/* Typed buffers: a request in typed values over a transport of the caller's, a pair of functions;
 * here it is a piece of memory where a program would have a socket. */
#include <psp.h>
#include <string.h>

typedef struct {
  char bytes[64];
  uint32_t written, read;
} Wire;

static int32_t send_bytes(void *context, const void *data, uint32_t count) {
  Wire *wire = context;
  if (count > sizeof wire->bytes - wire->written) return PSP_FAILED;
  memcpy(wire->bytes + wire->written, data, count);
  wire->written += count;
  return PSP_OKAY;
}

static int32_t receive_bytes(void *context, void *buffer, uint32_t capacity, uint32_t *filled) {
  Wire *wire = context;
  uint32_t left = wire->written - wire->read;
  memcpy(buffer, wire->bytes + wire->read, *filled = left < capacity ? left : capacity);
  wire->read += *filled;
  return left == 0 ? PSP_FAILED : PSP_OKAY; /* success without a byte would ask again */
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  Wire wire = {.written = 0};
  psp_outputBuff *out = NULL;
  psp_inputBuff *in = NULL;
  int failed = psp_outputBuffCreate(send_bytes, &wire, 0, &out) != PSP_OKAY ||
               psp_inputBuffCreate(receive_bytes, NULL, &wire, 0, &in) != PSP_OKAY ||
               psp_outputBuffPutInt32(out, 42) != PSP_OKAY ||
               psp_outputBuffPutStringWithLength(out, "SELECT 1") != PSP_OKAY ||
               psp_outputBuffFlush(out) != PSP_OKAY; /* the end of the buffer sends nothing */
  int32_t id;
  char text[32]; /* a limit for what a stranger sends */
  failed = failed || psp_inputBuffGetInt32(in, &id) != PSP_OKAY ||
           psp_inputBuffGetStringWithLength(in, text, sizeof text) != PSP_OKAY;
  if (!failed) psp_printf("request %d: %s, %u bytes\n", id, text, wire.written);
  psp_outputBuffDestroy(out);
  psp_inputBuffDestroy(in);
  psp_term();
  return failed;
}
