/* What pkgdb can be asked for:
 *
 *   section = "libs" and size > 1000 order by size desc limit 10
 *
 * Every part may be missing. */
%token NAME STRING NUMBER
%token EQUAL UNEQUAL LESS ATMOST MORE ATLEAST
%token OPEN CLOSE ORDER BY DESC LIMIT
%left OR
%left AND
%left NOT
%%
query
    : filter order limit                { query }
    ;
filter
    :                                   { everything }
    | condition                         { filter }
    ;
condition
    : condition OR condition            { or }
    | condition AND condition           { and }
    | NOT condition                     { not }
    | OPEN condition CLOSE              { group }
    | NAME operator value               { compare }
    ;
operator
    : EQUAL                             { equal }
    | UNEQUAL                           { unequal }
    | LESS                              { less }
    | ATMOST                            { at_most }
    | MORE                              { more }
    | ATLEAST                           { at_least }
    ;
value
    : STRING                            { string }
    | NUMBER                            { number }
    ;
order
    :                                   { unordered }
    | ORDER BY NAME                     { order_up }
    | ORDER BY NAME DESC                { order_down }
    ;
limit
    :                                   { unlimited }
    | LIMIT NUMBER                      { limit }
    ;
