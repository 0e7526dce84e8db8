/* Typed buffers: a request goes over the wire as typed values. The transport is a pair of functions
 * of the caller; here it is a piece of memory where a program would have a socket. */
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
  if (left == 0) return PSP_FAILED; /* the peer is gone; success without a byte would ask again */
  *filled = left < capacity ? left : capacity;
  memcpy(buffer, wire->bytes + wire->read, *filled);
  wire->read += *filled;
  return PSP_OKAY;
}

static int send_request(Wire *wire) {
  psp_outputBuff *out;
  if (psp_outputBuffCreate(send_bytes, wire, 0, &out) != PSP_OKAY) return 1;
  int failed = psp_outputBuffPutInt32(out, 42) != PSP_OKAY ||
               psp_outputBuffPutStringWithLength(out, "SELECT 1") != PSP_OKAY ||
               psp_outputBuffFlush(out) != PSP_OKAY; /* the end of the buffer sends nothing */
  psp_outputBuffDestroy(out);
  return failed;
}

static int receive_request(Wire *wire) {
  psp_inputBuff *in;
  if (psp_inputBuffCreate(receive_bytes, NULL, wire, 0, &in) != PSP_OKAY) return 1;
  int32_t id = 0;
  char text[32] = ""; /* a limit for what a stranger sends */
  int failed = psp_inputBuffGetInt32(in, &id) != PSP_OKAY ||
               psp_inputBuffGetStringWithLength(in, text, sizeof text) != PSP_OKAY;
  if (!failed) psp_printf("request %d: %s\n", id, text);
  psp_inputBuffDestroy(in);
  return failed;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  Wire wire = {.written = 0};
  int failed = send_request(&wire) || receive_request(&wire);
  psp_printf("on the wire: %u bytes\n", wire.written);
  psp_term();
  return failed;
}
