# `python -m tqdb`: running it runs the command; importing it defines nothing.
