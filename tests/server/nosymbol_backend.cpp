// A shared object that is no back end: the loader must say what it lacks.
extern "C" __attribute__((visibility("default"))) int zorvan_not_a_module();
int zorvan_not_a_module() {
    return 0;
}
