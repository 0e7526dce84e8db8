/* Statements, each of which a syntax error may spoil up to its end, or which are nothing but deep.
 * The rule without symbols in their middle shows the value that it finds. */
%token NAME NUMBER IS AND END OPEN CLOSE
%%
program
    :                         { begin }
    | program statement       { more }
    ;
statement
    : NAME IS values END      { assign }
    | error END               { skip }
    | error NUMBER NAME END   { resume }
    | AND error               { again }
    | OPEN nest CLOSE         { outermost }
    ;
values
    : NUMBER
    | values AND NUMBER       { join }
    ;
nest
    : middle
    | OPEN nest CLOSE         { wrap }
    ;
middle
    :                         { middle }
    ;
