/* Nothing but depth. The rule without symbols shows the value that it finds. */
%token OPEN CLOSE
%%
nest
    : middle
    | OPEN nest CLOSE         { wrap }
    ;
middle
    :                         { middle }
    ;
