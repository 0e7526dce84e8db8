/* Reading a query: the actions for the tables of query.y.
 *
 * The parser engine asks the lexer (query_lex.c) for tokens and calls an action for each rule that
 * it has found. Everything that a query consists of belongs to one tag. Only the first thing that
 * is wrong is told. */
#include <stdlib.h>
#include <string.h>

#include "query.h"
#include "query_tables.h"

static const char *const kFieldNames[kFieldCount] = {"name", "version", "section", "summary",
                                                     "size"};

static void on_syntax_error(void *context) {
  Parse *parse = context;
  if (parse->token_length == 0) {
    complain(parse, parse->token_line, parse->token_column, "the query ends too early");
  } else {
    complain(parse, parse->token_line, parse->token_column, "\"%.*s\" does not fit here",
             shown(parse->token, parse->token_length), parse->token);
  }
}

/* ---- The actions ----------------------------------------------------------------------------- */

static int16_t find_field(Parse *parse, const Value *name, Field *field) {
  for (int i = 0; i < kFieldCount; ++i) {
    if (strlen(name->text) != strlen(kFieldNames[i])) continue;
    if (!begins_with(name->text, kFieldNames[i])) continue;
    *field = (Field)i;
    return 0;
  }
  complain(parse, name->line, name->column,
           "\"%.*s\" is no field: name, version, section, summary or size",
           shown(name->text, strlen(name->text)), name->text);
  return kBadQuery;
}

static int16_t add_condition(Parse *parse, const Condition *condition, Value *result) {
  result->condition = psp_memdup(condition, sizeof *condition, parse->tag);
  return result->condition != NULL ? 0 : kFailed;
}

static int16_t compare(Parse *parse, const Value *name, const Value *operator,
                       const Value * operand, Value *result) {
  Condition condition = {.kind = kCompare,
                         .operator= operator->operator,
                         .text = operand->text,
                         .number = operand->number};
  int16_t status = find_field(parse, name, &condition.field);
  if (status != 0) return status;
  if ((condition.field == kSize) == (operand->text != NULL)) {
    complain(parse, operand->line, operand->column, "%s is compared with a %s", name->text,
             condition.field == kSize ? "number" : "string");
    return kBadQuery;
  }
  return add_condition(parse, &condition, result);
}

/* The values of a rule's symbols stand below each other, the last one's on top. */
static int16_t on_rule(void *context, void *last_value, int16_t rule, void *rule_result) {
  Parse *parse = context;
  Value *last = last_value, *result = rule_result;
  switch (rule) {
    case QUERY_RULE_QUERY:
      *parse->query = (Query){.where = last[-2].condition,
                              .order = last[-1].field,
                              .is_descending = last[-1].is_descending,
                              .limit = last[0].number};
      return 0;
    case QUERY_RULE_OR:
    case QUERY_RULE_AND: {
      Condition both = {.kind = rule == QUERY_RULE_OR ? kOr : kAnd,
                        .left = last[-2].condition,
                        .right = last[0].condition};
      return add_condition(parse, &both, result);
    }
    case QUERY_RULE_NOT: {
      Condition negation = {.kind = kNot, .right = last[0].condition};
      return add_condition(parse, &negation, result);
    }
    case QUERY_RULE_GROUP:
      result->condition = last[-1].condition;
      return 0;
    case QUERY_RULE_COMPARE:
      return compare(parse, &last[-2], &last[-1], &last[0], result);
    case QUERY_RULE_ORDER_UP:
      return find_field(parse, &last[0], &result->field);
    case QUERY_RULE_ORDER_DOWN:
      result->is_descending = 1;
      return find_field(parse, &last[-1], &result->field);
    case QUERY_RULE_EVERYTHING:
    case QUERY_RULE_UNORDERED:
      memset(result, 0, sizeof *result); /* a rule without symbols has no value yet */
      return 0;
    case QUERY_RULE_UNLIMITED:
      *result = (Value){.number = UINT32_MAX};
      return 0;
    case QUERY_RULE_LIMIT:
      result->number = last[0].number;
      return 0;
    default:
      if (rule >= QUERY_RULE_EQUAL && rule <= QUERY_RULE_AT_LEAST) {
        result->operator=(Operator)(rule - QUERY_RULE_EQUAL);
      }
      return 0; /* the value of the only symbol */
  }
}

int parse_query(Query *query, const char *text, psp_tag *tag, char *message, uint32_t size) {
  Parse parse = {.next = text,
                 .line = 1,
                 .column = 1,
                 .tag = tag,
                 .query = query,
                 .message = message,
                 .message_bytes = size};
  psp_yyContext context = {.valueSize = sizeof(Value),
                           .context = &parse,
                           .tables = &query_tables,
                           .lexer = next_token,
                           .action = on_rule,
                           .error = on_syntax_error,
                           .tag = tag};
  message[0] = '\0';
  if (strlen(text) > kMostQueryBytes) {
    complain(&parse, 1, 1, "a query has at most %d bytes", kMostQueryBytes);
    return kBadQuery;
  }
  if (psp_yyparse(&context) == 0) return 0;
  return message[0] != '\0' ? kBadQuery : kFailed; /* without a message memory was short */
}
