/* Typed buffers: a request goes over the wire as typed values. The transport is a pair of functions
 * of the caller; here it is a piece of memory where a program would have a socket. */
#include <psp.h>
#include <string.h>

typedef struct {
  unsigned char bytes[256];
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

static psp_status send_request(Wire *wire) {
  psp_outputBuff *out;
  psp_status status = psp_outputBuffCreate(send_bytes, wire, 0, &out);
  if (status != PSP_OKAY) return status;
  status = psp_outputBuffPutInt32(out, 42);
  if (status == PSP_OKAY) status = psp_outputBuffPutStringWithLength(out, "SELECT 1");
  if (status == PSP_OKAY) status = psp_outputBuffPutFloat64(out, 0.25);
  if (status == PSP_OKAY) status = psp_outputBuffFlush(out); /* destroying it sends nothing */
  psp_outputBuffDestroy(out);
  return status;
}

static psp_status receive_request(Wire *wire) {
  psp_inputBuff *in;
  psp_status status = psp_inputBuffCreate(receive_bytes, NULL, wire, 0, &in);
  if (status != PSP_OKAY) return status;
  int32_t id = 0;
  char text[64]; /* a limit for what a stranger sends */
  double timeout = 0;
  status = psp_inputBuffGetInt32(in, &id);
  if (status == PSP_OKAY) status = psp_inputBuffGetStringWithLength(in, text, sizeof text);
  if (status == PSP_OKAY) status = psp_inputBuffGetFloat64(in, &timeout);
  if (status == PSP_OKAY) psp_printf("request %d: %s, within %.2f s\n", id, text, timeout);
  psp_inputBuffDestroy(in);
  return status;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  Wire wire = {.written = 0};
  psp_status status = send_request(&wire);
  psp_printf("on the wire: %u bytes\n", wire.written);
  if (status == PSP_OKAY) status = receive_request(&wire);
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
