#include <boost/asio.hpp>
#include <boost/process.hpp>
#include <boost/process/v2.hpp>
#include <boost/process/v2/posix/vfork_launcher.hpp>
#include <string>

#include "bench/peers.h"

namespace bench {

std::size_t run_boost_v1(const char* program, const char* argument)
{
    namespace process = boost::process;
    boost::asio::io_context context;
    std::future<std::string> output;
    process::child child(program, argument, process::std_in.close(), process::std_out > output, context);
    context.run();
    child.wait();
    return output.get().size();
}

namespace {

template <class Launcher>
std::size_t run_v2(Launcher launcher, const char* program, const char* argument)
{
    namespace process = boost::process::v2;
    boost::asio::io_context context;
    boost::asio::readable_pipe pipe{context};
    auto child = launcher(context, program, std::initializer_list<boost::string_view>{argument},
                          process::process_stdio{nullptr, pipe, {}});
    std::string output;
    boost::system::error_code end;
    boost::asio::read(pipe, boost::asio::dynamic_buffer(output), end);
    child.wait();
    return output.size();
}

}  // namespace

std::size_t run_boost_v2(const char* program, const char* argument)
{
    return run_v2(boost::process::v2::posix::default_launcher(), program, argument);
}

std::size_t run_boost_v2_vfork(const char* program, const char* argument)
{
    return run_v2(boost::process::v2::posix::vfork_launcher(), program, argument);
}

}  // namespace bench
