# The calls that the fault layer of the tests takes over (tests/support/faults.h). The large-file twins come along: which
# name a call to open compiles to depends on the compiler's defaults.
set(wrapped_calls fork posix_spawnp execvp pipe dup2 open open64 close read write waitpid kill popen pclose
    fread fwrite ferror feof clearerr poll malloc calloc realloc)
if(ZT_COVERAGE)
    list(APPEND wrapped_calls _exit raise)
endif()
list(TRANSFORM wrapped_calls PREPEND LINKER:--wrap= OUTPUT_VARIABLE wrap_options)
