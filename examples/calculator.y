/* Sums and products of numbers. */
%token NUMBER PLUS TIMES
%left PLUS
%left TIMES
%%
sum
    : sum PLUS sum            { add }
    | sum TIMES sum           { multiply }
    | NUMBER
    ;
