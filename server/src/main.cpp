// The executable: nothing but the program of the server's library.
#include "program.h"

int main(int count, char** arguments) {
    return zorvan_gridftp_server_main(count, arguments);
}
