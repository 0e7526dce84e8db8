/* Memory pools: nodes of one size that come and go are recycled instead of obtained anew. */
#include <psp.h>

typedef struct Node {
  struct Node *next;
  int32_t value;
} Node;

/* Puts a value on the stack; the new top, or null when memory is short. */
static Node *push(psp_pool *pool, Node *top, int32_t value) {
  Node *node = psp_getMemFromPool(sizeof *node, pool, PSP_MEM_ALLOC, NULL, __FILE__, __LINE__);
  if (node != NULL) *node = (Node){top, value};
  return node;
}

static int run(psp_pool *pool) {
  Node *first = push(pool, NULL, 1);
  Node *second = first == NULL ? NULL : push(pool, first, 2);
  if (second == NULL) return 1;
  psp_printf("top: %d\n", second->value);
  uintptr_t place = (uintptr_t)second;
  psp_putInPool(second, pool);
  Node *third = push(pool, first, 3);
  if (third == NULL) return 1;
  psp_printf("top: %d, in the memory of the old one: %s\n", third->value,
             (uintptr_t)third == place ? "yes" : "no");
  return 0;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  psp_tag *tag = psp_createTag(0);
  psp_pool *pool = tag == PSP_TAG_FAILED ? NULL : psp_allocPool(tag, 1, 0);
  int result = pool == NULL ? 1 : run(pool);
  psp_zFreePool(&pool);      /* the nodes that wait in it, */
  psp_freeTagMemory(tag, 1); /* and those still handed out */
  psp_term();
  return result;
}
