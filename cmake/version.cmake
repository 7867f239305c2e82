# The version is written once, in the public header: 10203 there is 1.2.3 here.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../zt/ztpipe.h zt_version_line REGEX "ZT_PIPE_VERSION = [0-9]+;")
string(REGEX MATCH "[0-9]+" zt_version_number "${zt_version_line}")
math(EXPR zt_version_major "${zt_version_number} / 10000")
math(EXPR zt_version_minor "${zt_version_number} / 100 % 100")
math(EXPR zt_version_patch "${zt_version_number} % 100")
set(zt_version ${zt_version_major}.${zt_version_minor}.${zt_version_patch})
