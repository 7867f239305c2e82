// Every code of the module, in the order of its number.
#include <zt/ztpipe.h>
#include <zt/ztpipe/codes.h>

#define ZT_CODE(name) name, #name

namespace zt::pipe {

const zt_code_text code_texts[code_text_count] = {
    {ZT_CODE(ZT_PIPE_E_NOMEM), "no memory for {object}: {iparm0} bytes asked for, {iparm1} in use",
     "The process is at its memory limit. After a failed growth of Zt_pipes the handles that were open are "
     "lost."},
    {ZT_CODE(ZT_PIPE_E_NULLARG), "argument {sparm0} of {sparm1} is missing",
     "Pass the argument; null is not allowed here."},
    {ZT_CODE(ZT_PIPE_E_TOOLONG), "{sparm0} is {iparm0}, outside the limit of {iparm1}",
     "Shorten the text or correct the number. For a command line the length counts what options add to it."},
    {ZT_CODE(ZT_PIPE_E_NOSTATUS), "no status record was given", "Pass the address of a zt::Status."},
    {ZT_CODE(ZT_PIPE_E_DEBUGOPT), "'{msg}' is no debug category here",
     "Categories are global, open, close, read and write; 'not' may only come first in a list."},
    {ZT_CODE(ZT_PIPE_E_START), "{sparm0} could not be started",
     "The system text says why the shell could not be run: no more processes, no more descriptors, no "
     "memory."},
    {ZT_CODE(ZT_PIPE_E_INTERRUPTED), "an interrupt arrived while the operation ran",
     "Somebody pressed Ctrl-C. What the operation had done by then stands; of a close, the pipe is "
     "released."},
    {ZT_CODE(ZT_PIPE_E_NOPROGRAM), "the program or command text is empty",
     "Give the open a program to start."},
    {ZT_CODE(ZT_PIPE_E_FDSETUP), "setting up descriptor {sparm0} failed",
     "Mostly too many open files, or standard streams that were closed before the open. The location tells "
     "the call."},
    {ZT_CODE(ZT_PIPE_E_DUP), "duplicating a descriptor failed: {msg}",
     "Only the forked child sees this. The location tells which standard stream could not be wired."},
    {ZT_CODE(ZT_PIPE_E_FORK), "no process could be made for {sparm0}",
     "The limit of processes or of memory is reached; see the system text."},
    {ZT_CODE(ZT_PIPE_E_HANDLE), "{iparm0} is not the handle of an open pipe",
     "The pipe was closed before, its open failed and returned -1, or another thread is ending the process."},
    {ZT_CODE(ZT_PIPE_E_READ), "reading from {sparm0} failed",
     "See the system text. With object \"infinite loop of fread <= 0\" the buffer filled without the "
     "delimiter."},
    {ZT_CODE(ZT_PIPE_E_WRITE), "writing to {sparm0} failed",
     "See the system text. On a COMMAND pipe the child has probably gone: close the pipe to learn how it "
     "ended."},
    {ZT_CODE(ZT_PIPE_E_CLOSE), "closing the pipe to {sparm0} failed",
     "The pipe is released all the same. A bad descriptor means that something else closed it before."},
    {ZT_CODE(ZT_PIPE_E_KILL), "{sparm0} could not be ended",
     "Mostly a child that changed its user. The pipe is released; the child may still run."},
    {ZT_CODE(ZT_PIPE_E_WAIT), "waiting for {sparm0} failed", "See the system text."},
    {ZT_CODE(ZT_PIPE_S_NORMAL), "the child ended normally",
     "No failure by itself; a write reports it because its bytes did not arrive."},
    {ZT_CODE(ZT_PIPE_S_ERROR), "the child ended with an error: exit code {iparm0}",
     "Look at the child's own messages. 127 means that the program was not found, 126 that it cannot be "
     "run."},
    {ZT_CODE(ZT_PIPE_S_ABNORMAL), "the child was ended by signal {sys_errno}",
     "15 is what a close without NOKILL sends to a child that still runs: read to the end first, or use "
     "NOKILL. 13 is a child that wrote when nobody read any more."},
    {ZT_CODE(ZT_PIPE_E_ACTIVE), "the program is still running", "Ask again later."},
    {ZT_CODE(ZT_PIPE_E_MUSTWAIT), "a COMMAND pipe cannot be closed with NOWAIT",
     "Close it without NOWAIT; the pipe is still open."},
    {ZT_CODE(ZT_PIPE_E_OPTVALUE), "option {sparm0} knows no value '{sparm1}'",
     "STDERR takes DISCARD, COMBINE or IGNORE."},
    {ZT_CODE(ZT_PIPE_E_CONFLICT), "options {sparm0} and {sparm1} exclude each other",
     "Give only one of the two."},
    {ZT_CODE(ZT_PIPE_E_DEPENDS), "an option lacks the one it needs: {msg}", "Give both options."},
};

}  // namespace zt::pipe
