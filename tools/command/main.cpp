#include "Commands.h"
#include "InterruptEvent.h"
#include "Options.h"
#include "Output.h"

#include <tavronet/tavronet.h>

int main(int argc, char** argv)
{
    int exitCode = 0;
    const auto options = command::ParseOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;

    const command::Output output(options->json);
    const command::InterruptEvent interrupt; // before anything else starts a thread
    try {
        return options->run(*options, output, interrupt.Get());
    } catch (const command::Failure& failure) {
        return output.Fail(failure);
    } catch (CException* exception) {
        exception->Delete();
        return output.Fail({.code = UPnPException, .message = "memory is exhausted"});
    }
}
