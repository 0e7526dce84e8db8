/* Tagged memory: a list that grows, built under a tag of its own and released as a whole. Nothing
 * has to be released piece by piece, on a failure neither. */
#include <psp.h>

typedef struct {
  psp_tag *tag;
  char **words;
  size_t count, room;
} WordList;

static psp_status add_word(WordList *list, const char *word) {
  if (list->count == list->room) {
    size_t room = list->room == 0 ? 2 : 2 * list->room;
    char **words = psp_extendMem(list->words, room * sizeof *words, list->tag, 0, 0, __FILE__,
                                 __LINE__); /* without a block it obtains the first one */
    if (words == NULL) return PSP_NOMEMORY; /* the old block is untouched */
    list->words = words;
    list->room = room;
  }
  char *copy = psp_strdup(word, list->tag);
  if (copy == NULL) return PSP_NOMEMORY;
  list->words[list->count++] = copy;
  return PSP_OKAY;
}

int main(void) {
  if (psp_init() != PSP_OKAY) return 1;
  WordList list = {.tag = psp_createTag(0)};
  psp_status status = list.tag == PSP_TAG_FAILED ? PSP_NOMEMORY : PSP_OKAY;
  static const char *const kWords[] = {"one", "tag", "owns", "them", "all"};
  for (int i = 0; i < 5 && status == PSP_OKAY; ++i) status = add_word(&list, kWords[i]);
  for (size_t i = 0; i < list.count; ++i) psp_printf("%zu %s\n", i + 1, list.words[i]);
  psp_freeTagMemory(list.tag, 1); /* the words, the list and the tag */
  psp_term();
  return status == PSP_OKAY ? 0 : 1;
}
