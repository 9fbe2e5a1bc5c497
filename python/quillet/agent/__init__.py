"""An agent, as far as a daemon can tell: it calls tools and reads their answers."""
