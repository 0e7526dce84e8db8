/* Random numbers: a seed gives the same sequence on every platform. A die without a bias, and cards
 * in a random order. For tests and simulations, not for secrets. */
#include <psp.h>

/* A number from 0 to limit - 1, each as likely: numbers of the incomplete last round are skipped.
 */
static uint32_t below(psp_rand *generator, uint32_t limit) {
  uint32_t number;
  do {
    number = psp_randGetUInt32(generator);
  } while (number >= UINT32_MAX - UINT32_MAX % limit);
  return number % limit;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_rand *generator = psp_randCreate(5489); /* psp_seed() for another sequence each time */
  if (generator == NULL) {
    psp_term();
    return 1;
  }
  psp_printf("first number: %u\n", psp_randGetUInt32(generator));
  psp_printf("dice:");
  for (int i = 0; i < 10; ++i) psp_printf(" %u", 1 + below(generator, 6));

  char cards[] = "23456789TJQKA";
  for (uint32_t left = sizeof cards - 1; left > 1; --left) {
    uint32_t drawn = below(generator, left);
    char card = cards[drawn];
    cards[drawn] = cards[left - 1];
    cards[left - 1] = card;
  }
  psp_printf("\ncards: %s\n", cards);

  psp_randResetSeed(generator, 5489);
  psp_printf("again: %u\n", psp_randGetUInt32(generator));
  psp_randDestroy(generator);
  psp_term();
  return 0;
}
