"""What each subcommand of ``quorvane`` does, from its options to its exit status."""
