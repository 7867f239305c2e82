#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>
#include <pstreams/pstream.h>

#include <iterator>
#include <string>

#include "bench/peers.h"

namespace bench {
namespace {

std::size_t read_all(std::istream& stream)
{
    std::string output;
    char block[32768];
    while (stream.read(block, sizeof block) || stream.gcount() > 0)
        output.append(block, static_cast<std::size_t>(stream.gcount()));
    return output.size();
}

}  // namespace

std::size_t run_pstreams(const char* program, const char* argument)
{
    redi::ipstream stream(program, std::vector<std::string>{program, argument}, redi::pstreams::pstdout);
    const std::size_t size = read_all(stream);
    stream.close();
    return size;
}

std::size_t run_pstreams_command(const char* command)
{
    redi::ipstream stream(command, redi::pstreams::pstdout);
    const std::size_t size = read_all(stream);
    stream.close();
    return size;
}

std::size_t run_poco(const char* program, const char* argument)
{
    Poco::Pipe out;
    const auto child = Poco::Process::launch(program, {argument}, nullptr, &out, nullptr);
    Poco::PipeInputStream stream(out);
    std::string output;
    Poco::StreamCopier::copyToString(stream, output, 32768);
    child.wait();
    return output.size();
}

}  // namespace bench
