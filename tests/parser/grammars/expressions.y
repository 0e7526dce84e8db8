/* A list of expressions. Empty input is an empty list. */
%token NUMBER OPEN CLOSE END
%left PLUS MINUS
%left TIMES DIVIDE
%right POWER
%nonassoc LESS
%left NEGATIVE
%%
list
    :
    | list sum END            { end }
    ;
sum
    : sum PLUS sum            { add }
    | sum MINUS sum           { subtract }
    | sum TIMES sum           { multiply }
    | sum DIVIDE sum          { divide }
    | sum POWER sum           { raise }
    | sum LESS sum            { less }
    | MINUS sum %prec NEGATIVE { negate }
    | OPEN sum CLOSE          { group }
    | NUMBER                  { number }
    ;
