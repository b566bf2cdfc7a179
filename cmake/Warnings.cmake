# Warnings are errors for everything this project compiles.
add_compile_options(-Wall -Wextra -Werror)
add_compile_options($<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes>)
