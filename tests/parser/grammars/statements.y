/* Statements, each of which a syntax error may spoil up to its end. */
%token NAME NUMBER IS AND END
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
    ;
values
    : NUMBER
    | values AND NUMBER       { join }
    ;
