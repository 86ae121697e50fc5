// Nothing but a target for the precompiled headers.
int main()
{
	return 0;
}
