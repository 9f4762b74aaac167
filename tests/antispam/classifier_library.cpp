// A classifier as a library: answers the number that the message file begins with, and writes what
// it was called with into its output file.

#include <cstdio>
#include <cstdlib>

extern "C" int classify(const char* sender, const char* recipient, const char* database,
                        const char* message, const char* output)
{
    int answer = -1;
    if (std::FILE* in = std::fopen(message, "r")) {
        char line[16] = "";
        if (std::fgets(line, sizeof line, in))
            answer = std::atoi(line);
        std::fclose(in);
    }
    if (std::FILE* out = std::fopen(output, "w")) {
        std::fprintf(out, "%s|%s|%s|%s", sender, recipient, database, message);
        std::fclose(out);
    }
    return answer;
}
