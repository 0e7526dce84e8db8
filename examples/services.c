/* Services: one main function that runs from a console, as here, or as a service of the system once
 * psp_serviceInstall("example-server", ...) has installed this program under that name. */
#include <psp.h>

/* Set by another thread, hence looked at as volatile. */
static uint16_t stop_flag;
static int stop_asked(void) { return *(volatile uint16_t *)&stop_flag != 0; }

/* Outside a service the console's interrupt asks for the stop. */
static void on_interrupt(void) { *(volatile uint16_t *)&stop_flag = 1; }

static int32_t serve(psp_word port, psp_word rounds) {
  int32_t result = 1;
  int is_started = psp_init() == PSP_OKAY;
  if (is_started && psp_handleInterrupt(on_interrupt) == PSP_OKAY) {
    psp_printf("serving port %zu\n", (size_t)port);
    psp_serviceStarted();
    for (; rounds > 0 && !stop_asked(); --rounds) psp_sleep(1); /* the work */
    psp_printf("stopped\n");
    psp_handleInterrupt(NULL);
    result = 0;
  } else {
    psp_serviceStarted(); /* this call and the next are due on every way out */
  }
  if (is_started) psp_term();
  psp_serviceDone();
  return result;
}

int main(void) { return psp_serviceStart("example-server", &stop_flag, 4000, 3, serve); }
