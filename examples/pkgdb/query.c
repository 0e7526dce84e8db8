/* Answering a query: which packages of the catalog fit, and in what order they are told.
 *
 *   section = "libs" and size > 1000 order by size desc limit 10 */
#include "query.h"

#include <stdlib.h>
#include <string.h>

static int by_field(Field field, const Package *a, const Package *b) {
  switch (field) {
    case kName:
      return strcmp(a->name, b->name);
    case kVersion:
      return strcmp(or_empty(a->version), or_empty(b->version));
    case kSection:
      return strcmp(or_empty(a->section), or_empty(b->section));
    case kSummary:
      return strcmp(or_empty(a->summary), or_empty(b->summary));
    default:
      return a->kib < b->kib ? -1 : a->kib > b->kib;
  }
}

static int compares(const Condition *condition, const Package *package) {
  const char *text = condition->text;
  Package operand = {
      .name = text, .version = text, .section = text, .summary = text, .kib = condition->number};
  int order = by_field(condition->field, package, &operand);
  switch (condition->operator) {
    case kEqual:
      return order == 0;
    case kUnequal:
      return order != 0;
    case kLess:
      return order < 0;
    case kAtMost:
      return order <= 0;
    case kMore:
      return order > 0;
    default:
      return order >= 0;
  }
}

/* As deep as the query is nested, which its length limits. */
static int fits(const Condition *condition, const Package *package) {
  if (condition == NULL) return 1;
  switch (condition->kind) {
    case kOr:
      return fits(condition->left, package) || fits(condition->right, package);
    case kAnd:
      return fits(condition->left, package) && fits(condition->right, package);
    case kNot:
      return !fits(condition->right, package);
    default:
      return compares(condition, package);
  }
}

/* An entry knows its query, since the C library's sort hands nothing else to the comparison. */
typedef struct {
  const Package *package;
  const Query *query;
} Entry;

static int in_order(const void *left, const void *right) {
  const Entry *a = left, *b = right;
  int order = by_field(a->query->order, a->package, b->package);
  if (a->query->is_descending) order = -order;
  if (order == 0) order = strcmp(a->package->name, b->package->name);
  return order != 0 ? order : a->package->number < b->package->number ? -1 : 1;
}

static int select_packages(const Query *query, const Catalog *catalog, psp_tag *tag,
                           Answer *answer) {
  Entry *entries = psp_alloc(catalog->count * sizeof *entries, tag);
  if (entries == NULL) return kFailed;
  uint32_t count = 0;
  for (uint32_t i = 0; i < catalog->count; ++i) {
    if (!fits(query->where, catalog->packages[i])) continue;
    entries[count++] = (Entry){.package = catalog->packages[i], .query = query};
  }
  qsort(entries, count, sizeof *entries, in_order);
  answer->count = count < query->limit ? count : query->limit;
  if (answer->count == 0) return 0; /* a block of no bytes would be null, as after a failure */
  answer->packages = psp_alloc(answer->count * sizeof *answer->packages, tag);
  if (answer->packages == NULL) return kFailed;
  for (uint32_t i = 0; i < answer->count; ++i) answer->packages[i] = entries[i].package;
  return 0;
}

int answer_query(const char *text, const Catalog *catalog, psp_tag *tag, Answer *answer) {
  Query query;
  *answer = (Answer){0};
  answer->result = parse_query(&query, text, tag, answer->message, sizeof answer->message);
  if (answer->result == 0) answer->result = select_packages(&query, catalog, tag, answer);
  if (answer->result != 0 && answer->message[0] == '\0') {
    psp_strncpyZ(answer->message, "query: memory is short", sizeof answer->message);
  }
  return answer->result;
}

int print_answer(const Answer *answer) {
  if (answer->result != 0) {
    psp_log_err("%s\n", answer->message);
    return answer->result;
  }
  int printed = print_heading("package");
  for (uint32_t i = 0; printed && i < answer->count; ++i) {
    printed = print_package(answer->packages[i]);
  }
  /* What now waits in the channel goes out at the latest at psp_term, which only logs a failure. */
  const char *plural = answer->count == 1 ? "" : "s";
  printed = printed && psp_printf("%u package%s\n", answer->count, plural) >= 0;
  return printed ? 0 : kFailed;
}
