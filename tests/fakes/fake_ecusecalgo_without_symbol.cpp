// A library in the place of a key plug-in that does not export what it should.
extern "C" int esr_something_else()
{
	return 0;
}
